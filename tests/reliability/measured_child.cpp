#include "measured_child.h"

#include <dirent.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "kvffmpeg/format_context.h"
#include "kvffmpeg/utils.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KVFFMPEG_RELIABILITY_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KVFFMPEG_RELIABILITY_SANITIZED 1
#endif
#endif

namespace kvffmpeg::reliability {
namespace {

constexpr unsigned secondsUntilKilled = 60;

/// A value of /proc/self/status in bytes, such as "VmRSS".
std::size_t statusBytes(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, name.size() + 1, name + ":") == 0) {
            return std::strtoull(line.c_str() + name.size() + 1, nullptr, 10) * 1024;
        }
    }
    throw std::runtime_error("there is no " + name + " in /proc/self/status");
}

std::size_t entriesOf(const char* folder) {
    DIR* const entries = opendir(folder);
    if (!entries) throw std::system_error(errno, std::generic_category(), folder);
    std::size_t count = 0;
    while (readdir(entries)) ++count;
    closedir(entries);
    return count;
}

double processorSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

struct Message {
    std::size_t peakGrowth = 0;
    double seconds = 0;
    char outcome[200] = {};
};

[[noreturn]] void runAndTell(const std::function<std::string()>& function, int channel) {
    alarm(secondsUntilKilled);
    Message message;
    std::string outcome;
    // A new process has no peak from before.
    const std::size_t before = statusBytes("VmRSS");
    const double start = processorSeconds();
    try {
        outcome = function();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "unexpected exception: %s\n", error.what());
        _exit(70);
    }
    message.seconds = processorSeconds() - start;
    message.peakGrowth = statusBytes("VmHWM") - before;
    outcome.copy(message.outcome, sizeof message.outcome - 1);
    _exit(write(channel, &message, sizeof message) == static_cast<ssize_t>(sizeof message) ? 0 : 71);
}

std::string deathInWords(int status) {
    if (WIFSIGNALED(status)) return std::string("died: ") + strsignal(WTERMSIG(status));
    return "died: exit status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

std::string reasonNotToMeasureMemory() {
#ifdef KVFFMPEG_RELIABILITY_SANITIZED
    return "sanitizers keep memory of their own for all that there is";
#else
    return "";
#endif
}

Measured measureInChild(const std::function<std::string()>& function) {
    int ends[2];
    if (pipe(ends) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    std::fflush(nullptr);  // or the child would write it once more
    const pid_t child = fork();
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) runAndTell(function, ends[1]);
    close(ends[1]);
    Message message;
    const ssize_t count = read(ends[0], &message, sizeof message);
    close(ends[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    Measured result;
    result.died = status != 0 || count != static_cast<ssize_t>(sizeof message);
    result.outcome = result.died ? deathInWords(status) : message.outcome;
    result.peakGrowth = message.peakGrowth;
    result.seconds = message.seconds;
    return result;
}

Holdings holdings() {
    malloc_trim(0);
    return {statusBytes("VmRSS"), entriesOf("/proc/self/fd"), entriesOf("/proc/self/task")};
}

Growth growthOver(unsigned count, unsigned warmUp, const std::function<void()>& function) {
    for (unsigned i = 0; i < warmUp; ++i) function();
    const Holdings before = holdings();
    for (unsigned i = 0; i < count; ++i) function();
    const Holdings after = holdings();
    const auto difference = [](std::size_t now, std::size_t then) {
        return static_cast<std::ptrdiff_t>(now) - static_cast<std::ptrdiff_t>(then);
    };
    return {difference(after.residentBytes, before.residentBytes),
            difference(after.descriptors, before.descriptors), difference(after.threads, before.threads)};
}

void decodeAll(const std::string& path) {
    FormatContext context(path);
    context.open();
    unsigned frames = 0;
    while (const std::shared_ptr<Packet> packet = context.readPacket()) {
        if (!context.decodePacket(packet).empty()) ++frames;
    }
    context.close();
    if (frames == 0) throw std::runtime_error(path + ": no frame");
}

std::string pictureInWords(const std::string& path) {
    try {
        const Picture picture = loadPicture(path);
        if (picture.empty()) return "empty picture";
        return "picture, " + std::to_string(picture.width()) + "x" + std::to_string(picture.height());
    } catch (const std::runtime_error& error) {
        return std::string("exception, ") + error.what();
    }
}

}  // namespace kvffmpeg::reliability
