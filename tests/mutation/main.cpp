// Lets the library read thousands of broken copies of media files, each in a way that an application would,
// and tells what came of it.
//
//     kvffmpeg_mutation FOLDER [--runs-per-file N] [--seed N] [--cuts N] [--jobs N] [--time-limit S]
//                       [--memory-limit MB] [--total N] [--table FILE] [--tolerate-ffmpeg]
//     kvffmpeg_mutation FOLDER --only FILE:INDEX [--seed N] [--cuts N] [--write PATH]
//
//   --runs-per-file N   so many mutations of each file (100)
//   --total N           so many mutations in all, evenly over the files
//   --seed N            other mutations (1)
//   --cuts N            each file is also cut at so many lengths (64)
//   --jobs N            so many processes (as many as the machine has cores)
//   --time-limit S      of processor time for one run (2; 10 under sanitizers)
//   --memory-limit MB   of resident memory for one run (1024; 4096 under sanitizers)
//   --table FILE        the tables, in Markdown, also go to this file
//   --tolerate-ffmpeg   what goes wrong inside FFmpeg is told, but is no failure
//   --only FILE:INDEX   only this run, by the name that a failure is told with
//   --write PATH        writes the mutated file of --only instead of running it
//
// Ends with 1 when a run crashed, passed a limit, left a descriptor open or leaked, or when an exception left
// the library that may not; with 2 when it was called wrongly.

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "exercise.h"
#include "mutators.h"
#include "support/media.h"
#include "support/temporary_folder.h"
#include "tally.h"
#include "workers.h"

namespace kvffmpeg::mutation {
namespace {

struct Options {
    std::string folder;
    std::uint32_t runsPerFile = 100;
    std::uint32_t total = 0;
    std::uint64_t seed = 1;
    std::uint32_t cuts = 64;
    unsigned jobs = std::max(std::thread::hardware_concurrency(), 1U);
    Limits limits;
    std::string table;
    std::string only;
    std::string write;
    bool toleratesFFmpeg = false;
};

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

template <typename Number>
Number numberOf(const std::string& option, const std::string& text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw UsageError(option + " wants a number, and not \"" + text + "\"");
    }
    return number;
}

Options parsed(const std::vector<std::string>& arguments) {
    Options options;
    if (isSanitized())
        options.limits = {10, std::size_t{4096} * 1000000};
    else
        options.limits = {2, std::size_t{1024} * 1000000};
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& name = arguments[i];
        if (name.rfind("--", 0) != 0) {
            if (!options.folder.empty()) throw UsageError("more than one folder");
            options.folder = name;
            continue;
        }
        if (name == "--tolerate-ffmpeg") {
            options.toleratesFFmpeg = true;
            continue;
        }
        if (++i == arguments.size()) throw UsageError(name + " wants a value");
        const std::string& value = arguments[i];
        if (name == "--runs-per-file") {
            options.runsPerFile = numberOf<std::uint32_t>(name, value);
        } else if (name == "--total") {
            options.total = numberOf<std::uint32_t>(name, value);
        } else if (name == "--seed") {
            options.seed = numberOf<std::uint64_t>(name, value);
        } else if (name == "--cuts") {
            options.cuts = numberOf<std::uint32_t>(name, value);
        } else if (name == "--jobs") {
            options.jobs = numberOf<unsigned>(name, value);
        } else if (name == "--time-limit") {
            options.limits.seconds = numberOf<unsigned>(name, value);
        } else if (name == "--memory-limit") {
            options.limits.bytes = numberOf<std::size_t>(name, value) * 1000000;
        } else if (name == "--table") {
            options.table = value;
        } else if (name == "--only") {
            options.only = value;
        } else if (name == "--write") {
            options.write = value;
        } else {
            throw UsageError("there is no option " + name);
        }
    }
    if (options.folder.empty()) throw UsageError("no folder was given");
    if (options.limits.seconds <= 0 || options.limits.bytes == 0) throw UsageError("a limit is 0");
    if (!options.write.empty() && options.only.empty()) throw UsageError("--write wants --only");
    return options;
}

/// One run.
struct Item {
    enum class Change { none, mutation, cut };

    std::size_t file = 0;
    Change change = Change::none;
    std::uint32_t index = 0;  ///< Of the mutation or of the length.

    std::string indexText() const {
        if (change == Change::none) return "whole";
        return (change == Change::cut ? "cut" : "") + std::to_string(index);
    }
    std::string kindText() const {
        if (change == Change::none) return "unchanged";
        return change == Change::cut ? "cut at one of the lengths" : nameOf(kindOf(index));
    }
};

std::vector<std::filesystem::path> filesIn(const std::string& folder) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.is_regular_file() && entry.file_size() > 0) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) throw UsageError("there are no files in " + folder);
    return files;
}

std::vector<Item> plan(const std::vector<std::filesystem::path>& files, const Options& options) {
    std::vector<Item> items;
    for (std::size_t file = 0; file < files.size(); ++file) {
        items.push_back({file, Item::Change::none, 0});
        std::uint64_t runs = options.runsPerFile;
        if (options.total > 0) {
            runs = std::uint64_t{options.total} * (file + 1) / files.size() -
                   std::uint64_t{options.total} * file / files.size();
        }
        for (std::uint32_t i = 0; i < runs; ++i) items.push_back({file, Item::Change::mutation, i});
        const std::size_t size = std::filesystem::file_size(files[file]);
        const auto cuts = static_cast<std::uint32_t>(cutLengths(size, options.cuts).size());
        for (std::uint32_t i = 0; i < cuts; ++i) items.push_back({file, Item::Change::cut, i});
    }
    return items;
}

Item itemNamed(const std::string& name, const std::vector<std::filesystem::path>& files) {
    const std::size_t colon = name.rfind(':');
    if (colon == std::string::npos) throw UsageError("--only wants FILE:INDEX");
    Item item;
    while (item.file < files.size() && files[item.file].filename() != name.substr(0, colon)) ++item.file;
    if (item.file == files.size()) throw UsageError("there is no file " + name.substr(0, colon));
    std::string index = name.substr(colon + 1);
    if (index == "whole") return item;
    item.change = index.rfind("cut", 0) == 0 ? Item::Change::cut : Item::Change::mutation;
    if (item.change == Item::Change::cut) index.erase(0, 3);
    item.index = numberOf<std::uint32_t>("--only", index);
    return item;
}

/// What the file of a run is made of.
class Changer {
public:
    Changer(std::vector<std::filesystem::path> files, const Options& options)
        : files_(std::move(files)), seed_(options.seed), cuts_(options.cuts) {}

    Bytes bytesOf(const Item& item) {
        if (original_.empty() || item.file != loaded_) {
            original_ = test::readFile(files_[item.file].string());
            loaded_ = item.file;
        }
        if (item.change == Item::Change::none) return original_;
        if (item.change == Item::Change::mutation) {
            return mutated(original_, kindOf(item.index),
                           seedOf(seed_, files_[item.file].filename().string(), item.index));
        }
        const std::vector<std::size_t> lengths = cutLengths(original_.size(), cuts_);
        if (item.index >= lengths.size()) throw UsageError("there are not so many cuts");
        return {original_.begin(), original_.begin() + static_cast<std::ptrdiff_t>(lengths[item.index])};
    }

    /// FFmpeg looks at the ending of a name, too.
    std::string endingOf(const Item& item) const { return files_[item.file].extension().string(); }
    RunName nameOf(const Item& item) const {
        return {files_[item.file].filename().string(), item.indexText(), item.kindText()};
    }

private:
    std::vector<std::filesystem::path> files_;
    std::uint64_t seed_;
    std::uint32_t cuts_;
    Bytes original_;
    std::size_t loaded_ = 0;
};

int run(const Options& options) {
    const std::vector<std::filesystem::path> files = filesIn(options.folder);
    Changer changer(files, options);
    const std::vector<Item> items =
        options.only.empty() ? plan(files, options) : std::vector<Item>{itemNamed(options.only, files)};
    if (!options.write.empty()) {
        test::writeFile(options.write, changer.bytesOf(items.front()));
        return 0;
    }
    const test::TemporaryFolder folder;
    const Job job = [&](std::size_t number, Outcome& outcome) {
        const Item& item = items[number];
        const std::string path = folder.file(std::to_string(getpid()) + changer.endingOf(item));
        test::writeFile(path, changer.bytesOf(item));
        countLogLines(&outcome);
        exercise(path, outcome);
        countLogLines(nullptr);
        unlink(path.c_str());
    };
    Tally tally;
    std::size_t done = 0;
    const bool interactive = isatty(STDERR_FILENO) != 0;
    runInWorkers(items.size(), options.jobs, options.limits, job, [&](const Result& result) {
        tally.add(changer.nameOf(items[result.item]), result);
        if (interactive && (++done % 100 == 0 || done == items.size())) {
            std::cerr << '\r' << done << " of " << items.size() << (done == items.size() ? "\n" : "");
        }
    });
    std::cout << tally.markdown() << std::flush;
    if (!options.table.empty()) {
        const std::string text = tally.markdown();
        test::writeFile(options.table, {text.begin(), text.end()});
    }
    std::cerr << tally.failureReports();
    return tally.failures(options.toleratesFFmpeg) > 0 ? 1 : 0;
}

}  // namespace
}  // namespace kvffmpeg::mutation

int main(int argc, char** argv) {
    try {
        return kvffmpeg::mutation::run(kvffmpeg::mutation::parsed({argv + 1, argv + argc}));
    } catch (const kvffmpeg::mutation::UsageError& error) {
        std::cerr << "kvffmpeg_mutation: " << error.what() << '\n';
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "kvffmpeg_mutation: " << error.what() << '\n';
        return 1;
    }
}
