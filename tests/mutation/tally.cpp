#include "tally.h"

#include <algorithm>
#include <filesystem>
#include <iomanip>
#include <set>
#include <sstream>

namespace kvffmpeg::mutation {
namespace {

constexpr std::size_t reportLines = 40;

std::uint64_t megabytes(std::size_t bytes) {
    return (bytes + 999999) / 1000000;
}

std::string beginningOf(const std::string& text) {
    std::istringstream lines(text);
    std::string beginning;
    std::string line;
    for (std::size_t i = 0; i < reportLines && std::getline(lines, line); ++i)
        beginning += "    " + line + "\n";
    return beginning;
}

void tellCounts(std::ostream& out, const char* title, const std::map<std::string, std::uint64_t>& counts) {
    out << "\n| " << title << " | times |\n|---|---:|\n";
    std::vector<std::pair<std::string, std::uint64_t>> rows(counts.begin(), counts.end());
    std::stable_sort(rows.begin(), rows.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    for (const auto& [text, count] : rows) out << "| " << text << " | " << count << " |\n";
    if (rows.empty()) out << "| none | 0 |\n";
}

}  // namespace

void Tally::Sums::add(const Sums& other) {
    runs += other.runs;
    mutated += other.mutated;
    cuts += other.cuts;
    opened += other.opened;
    loaded += other.loaded;
    packets += other.packets;
    frames += other.frames;
    thrown += other.thrown;
    seconds += other.seconds;
    if (other.slowest > slowest) {
        slowest = other.slowest;
        slowestName = other.slowestName;
    }
    if (other.peakBytes > peakBytes) {
        peakBytes = other.peakBytes;
        peakName = other.peakName;
    }
}

void Tally::add(const RunName& name, const Result& result) {
    const Outcome& outcome = result.outcome;
    const bool whole = name.index == "whole";
    const bool cut = name.index.rfind("cut", 0) == 0;
    Sums run;
    run.runs = 1;
    run.cuts = cut ? 1 : 0;
    run.mutated = whole || cut ? 0 : 1;
    run.opened = outcome.opened ? 1 : 0;
    run.loaded = outcome.pictureLoaded ? 1 : 0;
    run.packets = outcome.packets;
    run.frames = outcome.frames;
    run.seconds = run.slowest = outcome.seconds;
    run.peakBytes = outcome.peakBytes;
    run.slowestName = run.peakName = name.full();
    for (const auto& [text, count] : outcome.thrown) {
        run.thrown += count;
        thrown_[text] += count;
    }
    for (const auto& [text, count] : outcome.logged) logged_[text] += count;
    files_[name.file].add(run);
    kinds_[name.kind].add(run);
    if (whole) {
        const std::string ending = std::filesystem::path(name.file).extension().string();
        formats_[name.file] =
            (ending.empty() ? "(none)" : ending.substr(1)) + ": " +
            (outcome.opened ? (outcome.format.empty() ? "no tracks" : outcome.format) : "does not open");
    }
    const auto fail = [&](const std::string& what, bool death) {
        failures_.push_back({name.full(), what, death, culpritOf(result.report), result.report});
    };
    for (const std::string& what : outcome.failures) fail(what, false);
    if (!result.death.empty()) fail(result.death, true);
}

std::size_t Tally::failures(bool toleratesFFmpeg) const {
    return static_cast<std::size_t>(std::count_if(
        failures_.begin(), failures_.end(),
        [&](const Failure& failure) { return !toleratesFFmpeg || failure.culprit != Culprit::ffmpeg; }));
}

std::size_t Tally::formats() const {
    std::set<std::string> different;
    for (const auto& [file, format] : formats_) {
        if (format.find("does not open") == std::string::npos) different.insert(format);
    }
    return different.size();
}

std::map<std::string, Tally::Sums> Tally::byFormat() const {
    std::map<std::string, Sums> sums;
    for (const auto& [file, ofFile] : files_) {
        const auto format = formats_.find(file);
        sums[format == formats_.end() ? "unknown" : format->second].add(ofFile);
    }
    return sums;
}

void Tally::tellFormats(std::ostream& out) const {
    out << "\n| Format | mutated | cuts | opened | packets | frames | exceptions | slowest, s | most memory, "
           "MB |\n"
           "|---|---:|---:|---:|---:|---:|---:|---:|---:|\n";
    for (const auto& [format, s] : byFormat()) {
        out << "| " << format << " | " << s.mutated << " | " << s.cuts << " | " << s.opened << " | "
            << s.packets << " | " << s.frames << " | " << s.thrown << " | " << s.slowest << " | "
            << megabytes(s.peakBytes) << " |\n";
    }
}

void Tally::tellKinds(std::ostream& out) const {
    out << "\n| Mutation | runs | opened | frames | exceptions | slowest, s | most memory, MB |\n"
           "|---|---:|---:|---:|---:|---:|---:|\n";
    for (const auto& [kind, s] : kinds_) {
        out << "| " << kind << " | " << s.runs << " | " << s.opened << " | " << s.frames << " | " << s.thrown
            << " | " << s.slowest << " | " << megabytes(s.peakBytes) << " |\n";
    }
}

std::string Tally::markdown() const {
    Sums all;
    for (const auto& [file, sums] : files_) all.add(sums);
    std::ostringstream out;
    out << std::fixed << std::setprecision(2);
    out << "| What | |\n|---|---:|\n";
    out << "| files | " << files_.size() << " |\n";
    out << "| formats (ending and codecs) that open | " << formats() << " |\n";
    out << "| runs | " << all.runs << " |\n";
    out << "| of them mutated | " << all.mutated << " |\n";
    out << "| of them cut at one of the lengths | " << all.cuts << " |\n";
    out << "| of them unchanged | " << all.runs - all.mutated - all.cuts << " |\n";
    out << "| runs whose file opened | " << all.opened << " |\n";
    out << "| runs that loaded a picture | " << all.loaded << " |\n";
    out << "| packets read | " << all.packets << " |\n";
    out << "| frames decoded | " << all.frames << " |\n";
    out << "| exceptions that may be | " << all.thrown << " |\n";
    out << "| processor time, s | " << all.seconds << " |\n";
    out << "| slowest run, s | " << all.slowest << " (" << all.slowestName << ") |\n";
    out << "| most resident memory of a run, MB | " << megabytes(all.peakBytes) << " (" << all.peakName
        << ") |\n";
    for (const bool death : {true, false}) {
        for (const Culprit culprit : {Culprit::library, Culprit::ffmpeg, Culprit::unknown}) {
            const auto count = std::count_if(failures_.begin(), failures_.end(), [&](const Failure& failure) {
                return failure.death == death && failure.culprit == culprit;
            });
            out << "| " << (death ? "crashes and runs that were killed, in " : "other failures, in ")
                << nameOf(culprit) << " | " << count << " |\n";
        }
    }
    tellKinds(out);
    tellCounts(out, "Exception", thrown_);
    tellCounts(out, "Errors and warnings in the log", logged_);
    tellFormats(out);
    if (!failures_.empty()) {
        out << "\n| Failure | in | what |\n|---|---|---|\n";
        for (const Failure& f : failures_) {
            out << "| " << f.name << " | " << nameOf(f.culprit) << " | " << f.what << " |\n";
        }
    }
    return out.str();
}

std::string Tally::failureReports() const {
    std::string text;
    for (const Failure& failure : failures_) {
        text += "FAILED: " + failure.name + ", in " + nameOf(failure.culprit) + ": " + failure.what + "\n" +
                beginningOf(failure.report);
    }
    return text;
}

}  // namespace kvffmpeg::mutation
