// kvffmpeg_faults: makes every allocation and every file call below the library's operations fail, one at a
// time and from one on, and looks at what is left.
//
// An operation is made ready and then run and destroyed while the preloaded shim is armed (shim.h). A dry run
// counts the points: the allocations and the calls on files, each of which is made to fail in a forked
// process of its own, once and from there on; calls on files fail with EIO, ENOSPC or EINTR as they can, and
// reads and writes are cut short. Of each point is asked:
//   - which exception left the operation: only std::bad_alloc, std::runtime_error, std::out_of_range and
//     std::range_error may, and only std::bad_alloc where nothing else is documented;
//   - without an exception, whether the result is that of the dry run. Where it differs this counts against
//   us
//     ("swallowed") if the allocation that failed was the library's own, or if the operation promises to
//     report every fault of a file; otherwise FFmpeg or FreeType have made do with what they had;
//   - whether descriptors are open that were not before;
//   - which blocks of those allocated since the operation was made ready are left after it was destroyed.
//   What
//     libraries keep for good was allocated before, as every operation is run twice before the first fork;
//   - whether a new object, made in the same process without a fault, gives the result of the dry run.
// A crash, a hang and a leak are ours when the innermost frame outside the C and C++ libraries lies in this
// library, its logger or this driver; of the blocks of a leak those count that no other leaked block holds.
// Those in FFmpeg or FreeType are listed with their place and the call that led to them.
//
// With --cold nothing runs before the first fork, so that the first use in a process is made to fail as well,
// and leaks are not looked for.
//
// The tables are Markdown. The exit status is 1 when anything counts against us, 2 for wrong arguments. Not
// built with sanitizers, whose allocator takes the place of the one that is watched here.

#include <dlfcn.h>
#include <execinfo.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "findings.h"
#include "logger/logger.h"
#include "operation.h"
#include "place.h"
#include "point.h"
#include "support/fonts.h"
#include "support/media.h"
#include "support/temporary_folder.h"

extern "C" {
#include <libavutil/log.h>
}

namespace kvffmpeg::faults {
namespace {

struct Arguments {
    std::size_t pointsPerOperation = 0;  ///< Of each of the two kinds; 0: all.
    std::string operations;              ///< A part of their names.
    std::string only;                    ///< An operation's whole name, a colon and a point.
    std::string media;
    unsigned seconds = 20;
    unsigned jobs = 1;
    bool cold = false;
    bool list = false;
    bool selfTest = false;
};

constexpr const char* usage =
    "usage: kvffmpeg_faults [--points-per-operation N] [--operations TEXT] [--only OPERATION:POINT]\n"
    "                       [--media FOLDER] [--cold] [--seconds-per-point N]\n"
    "                       [--jobs N] [--list] [--self-test]\n"
    "  --points-per-operation N  of memory and of files; striped over all, which are run by default\n"
    "  --operations TEXT         only those with this in their name\n"
    "  --only OPERATION:POINT    one point, as the tables name them, with all that is known of it\n"
    "  --media FOLDER            real media files to read as well\n"
    "  --cold                    the first use in a process; what stays allocated is no leak then\n"
    "  --jobs N                  points tried at the same time\n"
    "  --self-test               runs operations that do wrong, all of which must be found\n";

struct NamedFault {
    std::string name;
    Fault fault;
};

void addPoint(std::vector<NamedFault>& points, const std::string& name, Effect effect, bool onwards,
              int error, std::uint64_t index) {
    Fault fault;
    fault.effect = effect;
    fault.onwards = onwards;
    fault.error = error;
    fault.index = index;
    points.push_back({name + std::to_string(index) + (onwards ? "+" : ""), fault});
}

std::vector<NamedFault> memoryPoints(const Report& dry) {
    std::vector<NamedFault> points;
    for (const bool onwards : {false, true}) {
        for (std::uint64_t i = 1; i <= dry.allocations; ++i) {
            addPoint(points, "memory", Effect::noMemory, onwards, ENOMEM, i);
        }
    }
    return points;
}

std::vector<NamedFault> filePoints(const Report& dry) {
    std::vector<NamedFault> points;
    const std::uint64_t calls = std::min<std::uint64_t>(dry.fileCalls, mostFileCalls);
    for (std::uint64_t i = 1; i <= calls; ++i) {
        const FileCall kind = dry.fileCallKinds[i - 1];
        addPoint(points, "EIO", Effect::error, false, EIO, i);
        addPoint(points, "EIO", Effect::error, true, EIO, i);
        if (kind != FileCall::seek && kind != FileCall::map) {
            addPoint(points, "EINTR", Effect::error, false, EINTR, i);
        }
        if (kind == FileCall::write || kind == FileCall::open || kind == FileCall::close) {
            addPoint(points, "ENOSPC", Effect::error, false, ENOSPC, i);
            addPoint(points, "ENOSPC", Effect::error, true, ENOSPC, i);
        }
        if (kind == FileCall::read || kind == FileCall::write) {
            addPoint(points, "short", Effect::shortened, false, 0, i);
            addPoint(points, "short", Effect::shortened, true, 0, i);
        }
    }
    return points;
}

/// Evenly spread, the first and the last among them.
std::vector<NamedFault> striped(std::vector<NamedFault> points, std::size_t most) {
    if (most == 0 || points.size() <= most) return points;
    std::vector<NamedFault> chosen;
    for (std::size_t i = 0; i < most; ++i) {
        chosen.push_back(points[most == 1 ? 0 : i * (points.size() - 1) / (most - 1)]);
    }
    return chosen;
}

std::size_t threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

class Driver {
public:
    Driver(Shim& shim, const Arguments& arguments)
        : shim_(shim), arguments_(arguments), slots_(arguments.jobs) {}

    /// @returns false when anything counts against us.
    bool runAll(const std::vector<Operation>& operations) {
        std::vector<Row> memoryRows;
        std::vector<Row> fileRows;
        for (const Operation& operation : operations) {
            const Report dry = warmUp(operation);
            const std::vector<NamedFault> memory = memoryPoints(dry);
            const std::vector<NamedFault> files = filePoints(dry);
            if (memoryRows.empty()) printHeader(std::cout, "Progress: memory, then files");
            memoryRows.push_back(runPoints(operation, dry, memory));
            printRow(std::cout, memoryRows.back());
            if (files.empty()) continue;
            fileRows.push_back(runPoints(operation, dry, files));
            printRow(std::cout, fileRows.back());
        }
        Row memorySum = printTable("Memory", memoryRows);
        const Row fileSum = printTable("Files", fileRows);
        std::cout << "\n## Against us\n";
        againstUs_.print(std::cout);
        std::cout << "\n## In FFmpeg, FreeType and other libraries\n";
        theirs_.print(std::cout);
        memorySum.add(fileSum);
        std::cout << "\n"
                  << operations.size() << " operations, " << memorySum.points << " points, "
                  << memorySum.againstUs() << " against us\n";
        return memorySum.againstUs() == 0;
    }

    bool runOnly(const std::vector<Operation>& operations, const std::string& name) {
        const std::size_t colon = name.rfind(':');
        if (colon == std::string::npos) throw std::invalid_argument("--only wants OPERATION:POINT");
        for (const Operation& operation : operations) {
            if (operation.name != name.substr(0, colon)) continue;
            const Report dry = warmUp(operation);
            std::vector<NamedFault> points = memoryPoints(dry);
            for (const NamedFault& point : filePoints(dry)) points.push_back(point);
            for (const NamedFault& point : points) {
                if (point.name != name.substr(colon + 1)) continue;
                verbose_ = true;
                const Row row = runPoints(operation, dry, {point});
                printHeader(std::cout, name);
                printRow(std::cout, row);
                againstUs_.print(std::cout);
                theirs_.print(std::cout);
                return row.againstUs() == 0;
            }
        }
        throw std::invalid_argument("no such point: " + name);
    }

    /// Whether each operation was found out, and in the way that its name says.
    bool runSelfTest(const std::vector<Operation>& operations) {
        const std::map<std::string, std::uint64_t Row::*> expected = {
            {"crash", &Row::crashesOurs},      {"abort", &Row::crashesOurs},
            {"exit", &Row::crashesOurs},       {"hang", &Row::hangsOurs},
            {"leak", &Row::leaksOurs},         {"descriptor", &Row::descriptors},
            {"exception", &Row::undocumented}, {"promise", &Row::undocumented},
            {"swallowed", &Row::swallowed},    {"again", &Row::notAgain},
            {"file", &Row::swallowed}};
        bool allFound = operations.size() == expected.size();
        for (const Operation& operation : operations) {
            const Report dry = warmUp(operation);
            std::vector<NamedFault> points = memoryPoints(dry);
            for (const NamedFault& point : filePoints(dry)) points.push_back(point);
            const Row row = runPoints(operation, dry, points);
            const std::uint64_t found = row.*expected.at(operation.name);
            const bool alone = found == row.againstUs();
            std::cout << operation.name << ": " << (found > 0 && alone ? "found" : "NOT FOUND") << ", "
                      << found << " of " << row.points << " points\n";
            allFound = allFound && found > 0 && alone;
        }
        return allFound;
    }

private:
    /// Lets libraries allocate what they keep for good, and counts the points.
    Report warmUp(const Operation& operation) {
        for (int i = 0; i < (arguments_.cold ? 0 : 2); ++i) {
            const std::unique_ptr<Instance> instance = operation.make();
            instance->run();
            (void)instance->result();
        }
        if (threads() != 1) throw std::runtime_error(operation.name + " leaves threads behind");
        const Report dry = runExtra(operation, Fault());
        if (dry.stage != Stage::done || dry.thrown != Thrown::nothing || !dry.newGaveResult ||
            dry.result != dry.resultOfNew || dry.overflowed || dry.fileCalls > mostFileCalls) {
            throw std::runtime_error(operation.name + " does not go through without a fault: " +
                                     dry.text.data() + "\n" + describe(dry.crashedAt));
        }
        if ((dry.leakedBlocks != 0 && !arguments_.cold) || dry.descriptors != 0) {
            throw std::runtime_error(
                operation.name + " leaks without a fault: " + std::to_string(dry.leakedBlocks) +
                " blocks from\n" + describe(runExtra(operation, Fault(), dry.leaked[0]).tracedAt));
        }
        return dry;
    }

    Row runPoints(const Operation& operation, const Report& dry, const std::vector<NamedFault>& all) {
        Row row;
        row.operation = operation.name;
        row.possible = all.size();
        const std::vector<NamedFault> points = striped(all, arguments_.pointsPerOperation);
        const std::size_t ahead = slots_.size();
        for (std::size_t i = 0; i < points.size() + ahead; ++i) {
            Point& slot = slots_[i % ahead];
            if (i >= ahead) notePoint(operation, dry, points[i - ahead], slot.finish(), row);
            if (i < points.size()) slot.start(shim_, operation, points[i].fault, arguments_.seconds);
        }
        return row;
    }

    const Report& runExtra(const Operation& operation, const Fault& fault, std::uint64_t tracedOrdinal = 0) {
        extra_.start(shim_, operation, fault, arguments_.seconds, tracedOrdinal);
        return extra_.finish();
    }

    void notePoint(const Operation& operation, const Report& dry, const NamedFault& point,
                   const Report& report, Row& row) {
        const std::string name = operation.name + ":" + point.name;
        ++row.points;
        if (verbose_) {
            std::cout << name << ", fired " << report.fired << " times, first at\n"
                      << describe(report.firedAt);
        }
        if (report.signal != 0) {
            noteCrash(report, name, row);
            return;
        }
        noteResult(operation, dry, point, report, name, row);
        if ((report.leakedBlocks != 0 && !arguments_.cold) || report.overflowed)
            noteLeak(operation, point, report, name, row);
        if (report.descriptors != 0) {
            ++row.descriptors;
            againstUs_.add("descriptors left open", name);
        }
        if (!report.newGaveResult || report.resultOfNew != dry.result) {
            ++row.notAgain;
            againstUs_.add("a new object does not give the result", name);
        }
    }

    void noteCrash(const Report& report, const std::string& name, Row& row) {
        const bool hang = report.signal == SIGALRM;
        Place place = placeOf(report.crashedAt, false);
        if (!place.known && report.fired) {
            // A destroyed stack: what could not bear the failed call is the next best culprit.
            place = placeOf(report.firedAt, true);
            place.innermost = "an unknown place after a fault in " + place.innermost;
        }
        const char* const stages[] = {" while made ready", "", " in the destruction", " in a new object", ""};
        const std::string how = report.signal < 0 ? "end of the process" : strsignal(report.signal);
        const std::string what = (hang ? "hang" : "crash (" + how + ")") +
                                 std::string(stages[static_cast<std::size_t>(report.stage)]) + " in " +
                                 place.text();
        ++(row.*(hang         ? place.ours ? &Row::hangsOurs : &Row::hangsTheirs
                 : place.ours ? &Row::crashesOurs
                              : &Row::crashesTheirs));
        (place.ours ? againstUs_ : theirs_).add(what, name);
        if (verbose_) std::cout << what << "\n" << describe(report.crashedAt);
    }

    void noteResult(const Operation& operation, const Report& dry, const NamedFault& point,
                    const Report& report, const std::string& name, Row& row) {
        const bool onlyMemory = (operation.promises & onlyBadAlloc) != 0;
        bool documented = !onlyMemory;
        switch (report.thrown) {
            case Thrown::nothing:
                if (report.result == dry.result) {
                    ++row.same;
                } else {
                    noteOtherResult(operation, point, report, name, row);
                }
                return;
            case Thrown::badAlloc:
                ++row.badAlloc;
                documented = true;
                break;
            case Thrown::runtimeError:
                ++row.runtimeError;
                break;
            case Thrown::outOfRange:
            case Thrown::rangeError:
                ++row.otherExceptions;
                break;
            case Thrown::other:
                documented = false;
                break;
        }
        if (verbose_) std::cout << "exception: " << report.text.data() << "\n";
        if (documented) return;
        ++row.undocumented;
        againstUs_.add(std::string("undocumented exception: ") + report.text.data(), name);
    }

    void noteOtherResult(const Operation& operation, const NamedFault& point, const Report& report,
                         const std::string& name, Row& row) {
        ++row.other;
        const Place place = placeOf(report.firedAt, true);
        const bool memory = point.fault.effect == Effect::noMemory;
        const bool ours = memory ? place.ours && (operation.promises & answersShortage) == 0
                                 : (operation.promises & reportsAllErrors) != 0;
        if (ours) ++row.swallowed;
        (ours ? againstUs_ : theirs_)
            .add("other result without an exception, fault in " + place.text(), name);
    }

    void noteLeak(const Operation& operation, const NamedFault& point, const Report& report,
                  const std::string& name, Row& row) {
        std::vector<Place> places;
        const std::size_t listed = report.leakedRoots;
        for (std::size_t i = 0; i < listed; ++i)
            places.push_back(placeOfBlock(operation, point, report.leaked[i]));
        const auto ours =
            std::find_if(places.begin(), places.end(), [](const Place& place) { return place.ours; });
        const bool isOurs = ours != places.end() || places.empty() || report.overflowed;
        ++(row.*(isOurs ? &Row::leaksOurs : &Row::leaksTheirs));
        const std::string where = report.overflowed
                                      ? "unknown places: more blocks than can be kept account of"
                                  : isOurs ? ours->text()
                                           : places.front().text();
        (isOurs ? againstUs_ : theirs_).add("leak of a block from " + where, name);
        if (!verbose_) return;
        std::cout << report.leakedBlocks << " blocks, " << report.leakedBytes
                  << " bytes leaked; held by no other\n";
        for (std::size_t i = 0; i < listed; ++i) {
            std::cout << "  allocation " << report.leaked[i] << "\n"
                      << describe(runExtra(operation, point.fault, report.leaked[i]).tracedAt);
        }
    }

    /// Runs the point once more to learn where a block was allocated.
    Place placeOfBlock(const Operation& operation, const NamedFault& point, std::uint64_t ordinal) {
        // Before the fault all points of an operation are alike.
        const bool before = point.fault.effect == Effect::noMemory && ordinal < point.fault.index;
        const auto key = std::make_pair(operation.name, ordinal);
        const auto known = blocksBefore_.find(key);
        if (before && known != blocksBefore_.end()) return known->second;
        const Place place = placeOf(runExtra(operation, point.fault, ordinal).tracedAt, true);
        if (before) blocksBefore_.emplace(key, place);
        return place;
    }

    Row printTable(const std::string& title, const std::vector<Row>& rows) {
        Row sum;
        sum.operation = "**all**";
        printHeader(std::cout, title);
        for (const Row& row : rows) {
            printRow(std::cout, row);
            sum.add(row);
        }
        printRow(std::cout, sum);
        return sum;
    }

    Shim& shim_;
    const Arguments& arguments_;
    Point extra_;               // for what is not one of many
    std::vector<Point> slots_;  // for those that are tried at the same time
    Findings againstUs_;
    Findings theirs_;
    std::map<std::pair<std::string, std::uint64_t>, Place> blocksBefore_;
    bool verbose_ = false;
};

Arguments parse(int count, char** values) {
    Arguments arguments;
    const std::vector<std::string> words(values + 1, values + count);
    for (std::size_t i = 0; i < words.size(); ++i) {
        const auto value = [&]() -> const std::string& {
            if (i + 1 >= words.size()) throw std::invalid_argument("a value is missing behind " + words[i]);
            return words[++i];
        };
        if (words[i] == "--points-per-operation") {
            arguments.pointsPerOperation = std::stoul(value());
        } else if (words[i] == "--operations") {
            arguments.operations = value();
        } else if (words[i] == "--only") {
            arguments.only = value();
        } else if (words[i] == "--media") {
            arguments.media = value();
        } else if (words[i] == "--seconds-per-point") {
            arguments.seconds = static_cast<unsigned>(std::stoul(value()));
        } else if (words[i] == "--jobs") {
            arguments.jobs = static_cast<unsigned>(std::max(std::stoul(value()), 1UL));
        } else if (words[i] == "--cold") {
            arguments.cold = true;
        } else if (words[i] == "--list") {
            arguments.list = true;
        } else if (words[i] == "--self-test") {
            arguments.selfTest = true;
        } else {
            throw std::invalid_argument("unknown argument " + words[i]);
        }
    }
    return arguments;
}

Shim* findShim() {
    void* entry = dlsym(RTLD_DEFAULT, shimEntry);
    return entry ? reinterpret_cast<Shim* (*)()>(entry)() : nullptr;
}

/// What the first use of the runtime allocates.
void warmUpRuntime() {
    std::array<void*, 4> frames;
    (void)backtrace(frames.data(), static_cast<int>(frames.size()));
    Dl_info info{};
    (void)dladdr(frames[0], &info);
    try {
        throw std::runtime_error("warm-up");
    } catch (const std::exception&) {
    }
    logger::setSink([](logger::Level, const std::string&) {});
    av_log_set_level(AV_LOG_QUIET);
}

int run(int count, char** values) {
    const Arguments arguments = parse(count, values);
    Shim* shim = findShim();
    if (!shim) {
        if (std::getenv("LD_PRELOAD")) throw std::runtime_error("the shim was not loaded");
        setenv("LD_PRELOAD", KVFFMPEG_FAULT_SHIM, 1);
        setenv("LD_BIND_NOW", "1", 1);  // so that no forked process has to do it
        execv("/proc/self/exe", values);
        throw std::runtime_error("cannot start anew with the shim");
    }
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    warmUpRuntime();

    const test::TemporaryFolder folder;
    Places places;
    places.examples = test::exampleMedia("clip.mp4");
    places.examples.resize(places.examples.rfind('/'));
    places.temporary = folder.path();
    places.font = test::sansFont();
    places.media = arguments.media;
    // The texts stay where they are from here on.
    const std::string fontFolder = places.font.substr(0, places.font.rfind('/') + 1);
    for (const std::string& path : {std::cref(places.examples), std::cref(places.temporary),
                                    std::cref(places.media), std::cref(fontFolder)}) {
        if (!path.empty()) shim->watchFolder(path.c_str());
    }

    std::vector<Operation> operations = allOperations(places);
    if (arguments.selfTest) operations = faultyOperations(places);
    operations.erase(std::remove_if(operations.begin(), operations.end(),
                                    [&](const Operation& operation) {
                                        return operation.name.find(arguments.operations) == std::string::npos;
                                    }),
                     operations.end());
    if (arguments.list) {
        for (const Operation& operation : operations) std::cout << operation.name << "\n";
        return 0;
    }
    Driver driver(*shim, arguments);
    if (arguments.selfTest) return driver.runSelfTest(operations) ? 0 : 1;
    if (!arguments.only.empty()) return driver.runOnly(operations, arguments.only) ? 0 : 1;
    return driver.runAll(operations) ? 0 : 1;
}

}  // namespace
}  // namespace kvffmpeg::faults

int main(int count, char** values) {
    try {
        return kvffmpeg::faults::run(count, values);
    } catch (const std::invalid_argument& error) {
        std::cerr << error.what() << "\n" << kvffmpeg::faults::usage;
        return 2;
    } catch (const std::exception& error) {
        std::cerr << error.what() << "\n";
        return 2;
    }
}
