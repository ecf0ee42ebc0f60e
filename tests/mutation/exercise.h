#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <map>
#include <string>
#include <vector>

namespace kvffmpeg::mutation {

/// What happened in one run: all that the library did with one file.
struct Outcome {
    std::string format;  ///< Of a file that opened: the codecs of its tracks.
    bool opened = false;
    std::uint64_t packets = 0;
    std::uint64_t frames = 0;
    bool pictureLoaded = false;
    std::map<std::string, std::uint64_t> thrown;  ///< Exceptions that may be, by operation and text.
    std::map<std::string, std::uint64_t> logged;  ///< Errors and warnings in the log, by beginning.
    std::vector<std::string> failures;            ///< What must not be.
    double seconds = 0;                           ///< Of processor time.
    std::size_t peakBytes = 0;                    ///< Resident memory at its highest, of the whole process.
};

enum class Operation { decoding, other };

/// Counts an exception that left the library, or makes it a failure when its type may not leave it: decoding
/// may throw only std::bad_alloc; other operations also std::runtime_error, std::out_of_range and
/// std::range_error, but nothing that is derived from them.
void note(Outcome& outcome, const std::string& name, Operation operation,
          const std::exception_ptr& exception);

/// Opens the file with and without stream information, reads and decodes all of it both times, seeks, hands
/// decoders over, loads it as a picture and closes it.
void exercise(const std::string& path, Outcome& outcome);

/// Counts what FFmpeg and the library log as errors and warnings, from now on, into `logged` of the outcome
/// that was named last.
void countLogLines(Outcome* outcome);

/// Everything that can be written into one message to another process.
std::string packed(const Outcome& outcome);
Outcome unpacked(const std::string& message);

}  // namespace kvffmpeg::mutation
