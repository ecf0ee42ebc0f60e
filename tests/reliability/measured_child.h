#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace kvffmpeg::reliability {

/// Why memory cannot be measured in this program; empty when it can.
std::string reasonNotToMeasureMemory();

/// What a child process did.
struct Measured {
    std::string outcome;  ///< What the function returned, or, after a colon, how the process died.
    bool died = false;
    std::size_t peakGrowth = 0;  ///< Of its resident memory, in bytes.
    double seconds = 0;          ///< Of processor time.
};

/// Runs the function in a child process, which is killed after a minute.
/// @throws std::system_error when there cannot be one.
Measured measureInChild(const std::function<std::string()>& function);

/// What the process holds at the moment.
struct Holdings {
    std::size_t residentBytes = 0;  ///< After the heap has given back what it can.
    std::size_t descriptors = 0;
    std::size_t threads = 0;
};

Holdings holdings();

/// How the holdings grew over `count` calls of the function, after some to warm up.
struct Growth {
    std::ptrdiff_t residentBytes = 0;
    std::ptrdiff_t descriptors = 0;
    std::ptrdiff_t threads = 0;
};

Growth growthOver(unsigned count, unsigned warmUp, const std::function<void()>& function);

/// Opens the input, reads and decodes all of it, and closes it.
/// @throws std::runtime_error, also when no frame came out of it.
void decodeAll(const std::string& path);

/// The picture of a file, or the exception that there was, in words. Only a std::runtime_error may be: any
/// other passes through.
std::string pictureInWords(const std::string& path);

}  // namespace kvffmpeg::reliability
