// The drawing functions beside what users would pick instead, on the same data in one process, in turns, on
// one thread and one core. Prints the times and how they compare with the goals.

#include <sched.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "contest.h"
#include "kernels.h"
#include "table.h"

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/log.h>
}

namespace {

using drawing::Case;

constexpr const char* usage =
    "usage: kvffmpeg_drawing_benchmarks [--filter TEXT] [--runs N] [--variant NAME] [--markdown] [--list]\n"
    "  --filter TEXT   only rows whose kernel, content and size contain TEXT\n"
    "  --runs N        measure each row N times and take the medians; 1 without\n"
    "  --variant NAME  of the kernels: scalar, avx2, avx512, avx512vbmi; the CPU's best without\n"
    "  --markdown      print the table as it stands in the documentation\n"
    "  --list          print the names of the rows and measure nothing\n";

struct Options {
    std::string filter;
    int runs = 1;
    std::string variant;
    bool isMarkdown = false;
    bool lists = false;
    bool helps = false;
};

Options parse(int count, char** arguments) {
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string argument = arguments[i];
        const auto value = [&]() -> std::string {
            if (++i == count) throw std::invalid_argument(argument + " needs a value");
            return arguments[i];
        };
        if (argument == "--filter") {
            options.filter = value();
        } else if (argument == "--runs") {
            options.runs = static_cast<int>(std::strtol(value().c_str(), nullptr, 10));
            if (options.runs < 1) throw std::invalid_argument("--runs needs a number from 1 on");
        } else if (argument == "--variant") {
            options.variant = value();
        } else if (argument == "--markdown") {
            options.isMarkdown = true;
        } else if (argument == "--list") {
            options.lists = true;
        } else if (argument == "--help") {
            options.helps = true;
        } else {
            throw std::invalid_argument("unknown argument " + argument);
        }
    }
    return options;
}

void choose(const std::string& name) {
    for (const kvffmpeg::kernels::Variant* variant : kvffmpeg::kernels::all()) {
        if (name != variant->name) continue;
        if (!variant->supported()) throw std::invalid_argument("this CPU does not run the variant " + name);
        kvffmpeg::kernels::setActive(variant);
        return;
    }
    throw std::invalid_argument("there is no variant " + name);
}

std::string cpuModel() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
    }
    return "unknown CPU";
}

/// Stays on the core that it is on. @returns its number, or a negative one if the system refuses.
int stayOnCore() {
    const int core = sched_getcpu();
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(core), &set);
    return core >= 0 && sched_setaffinity(0, sizeof(set), &set) == 0 ? core : -1;
}

std::string nameOf(const Case& row) {
    return row.kernel + ", " + row.content + ", " + std::to_string(row.size.w) + "x" +
           std::to_string(row.size.h);
}

drawing::Outcome run(const Case& row, int runs) {
    drawing::Outcome outcome{row, {}, {}, {}};
    for (int i = 0; i < runs; ++i) {
        const drawing::Contest contest = row.prepare();  // in fresh memory each time
        if (i == 0) {
            for (const drawing::Contender& contender : contest.contenders) {
                outcome.names.push_back(contender.name);
            }
            outcome.goals = contest.goals;
            for (const std::string& name : strangers(contest)) {
                std::cerr << nameOf(row) << ": " << name << " makes another picture\n";
            }
        }
        outcome.runs.push_back(measure(contest, row.size == drawing::inCache));
    }
    return outcome;
}

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (const auto part :
         {drawing::blendingCases, drawing::keyingCases, drawing::fillingCases, drawing::editingCases}) {
        std::vector<Case> some = part();
        cases.insert(cases.end(), std::make_move_iterator(some.begin()), std::make_move_iterator(some.end()));
    }
    return cases;
}

}  // namespace

int main(int count, char** arguments) try {
    const Options options = parse(count, arguments);
    if (options.helps) {
        std::cout << usage;
        return 0;
    }
    if (!options.variant.empty()) choose(options.variant);
    std::vector<Case> cases;
    for (Case& row : allCases()) {
        if (nameOf(row).find(options.filter) != std::string::npos) cases.push_back(std::move(row));
    }
    if (options.lists) {
        for (const Case& row : cases) std::cout << nameOf(row) << '\n';
        return 0;
    }

    av_log_set_level(AV_LOG_ERROR);
    const int core = stayOnCore();
    std::cout << cpuModel() << (core < 0 ? ", not bound to a core" : ", core " + std::to_string(core))
              << "; kernels: " << kvffmpeg::kernels::active().name << "; FFmpeg " << av_version_info()
              << "; runs: " << options.runs << "\n\n";
    drawing::Table table(options.isMarkdown);
    table.printHead();
    for (const Case& row : cases) table.print(run(row, options.runs));
    table.printSummary();
} catch (const std::invalid_argument& error) {
    std::cerr << error.what() << '\n' << usage;
    return 2;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
