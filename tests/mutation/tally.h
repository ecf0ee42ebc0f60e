#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "culprit.h"
#include "workers.h"

namespace kvffmpeg::mutation {

/// What has to be counted of one run, beside its result.
struct RunName {
    std::string file;   ///< Without its folder.
    std::string index;  ///< What `--only` takes behind the file: "17", "cut5", "whole".
    std::string kind;   ///< "bit flips", "cut at one of the lengths", "whole".

    std::string full() const { return file + ":" + index; }
};

/// Sums up results, and tells them as a page in Markdown.
class Tally {
public:
    void add(const RunName& name, const Result& result);

    /// Deaths, and whatever else must not be; with `toleratesFFmpeg`, only those that are not FFmpeg's own.
    std::size_t failures(bool toleratesFFmpeg) const;
    /// Of the files that opened unchanged.
    std::size_t formats() const;
    std::string markdown() const;
    /// Every failure with the beginning of its report.
    std::string failureReports() const;

private:
    struct Sums {
        std::uint64_t runs = 0;
        std::uint64_t mutated = 0;
        std::uint64_t cuts = 0;
        std::uint64_t opened = 0;
        std::uint64_t loaded = 0;
        std::uint64_t packets = 0;
        std::uint64_t frames = 0;
        std::uint64_t thrown = 0;
        double seconds = 0;
        double slowest = 0;
        std::string slowestName;
        std::size_t peakBytes = 0;
        std::string peakName;

        void add(const Sums& other);
    };
    struct Failure {
        std::string name;
        std::string what;
        bool death = false;
        Culprit culprit = Culprit::unknown;
        std::string report;
    };

    std::map<std::string, Sums> byFormat() const;
    void tellFormats(std::ostream& out) const;
    void tellKinds(std::ostream& out) const;

    std::map<std::string, Sums> files_;
    std::map<std::string, std::string> formats_;  ///< Of each file.
    std::map<std::string, Sums> kinds_;
    std::map<std::string, std::uint64_t> thrown_;
    std::map<std::string, std::uint64_t> logged_;
    std::vector<Failure> failures_;
};

}  // namespace kvffmpeg::mutation
