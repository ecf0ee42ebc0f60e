#include "workers.h"

#include <dirent.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define KVFFMPEG_MUTATION_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KVFFMPEG_MUTATION_SANITIZED 1
#endif
#endif

#ifdef KVFFMPEG_MUTATION_SANITIZED
#include <sanitizer/lsan_interface.h>

// FFmpeg asks for whatever a file says, and is told that there is no such memory; without a small quarantine,
// what was freed would count as memory of the runs that follow.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() {
    return "allocator_may_return_null=1:quarantine_size_mb=16:handle_abort=1:detect_leaks=1";
}
#endif

namespace kvffmpeg::mutation {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double waitingFactor = 10;
constexpr double killFactor = 5;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

double secondsOf(clockid_t clock) {
    timespec time{};
    if (clock_gettime(clock, &time) != 0) return 0;
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

std::size_t openDescriptors() {
    std::size_t count = 0;
    DIR* const folder = opendir("/proc/self/fd");
    if (!folder) return 0;
    while (readdir(folder)) ++count;
    closedir(folder);
    return count;
}

/// "VmHWM", the highest since the reset, in bytes.
std::size_t peakMemory() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10) * 1024;
    }
    return 0;
}

void resetPeakMemory() {
    std::ofstream("/proc/self/clear_refs") << '5';
}

std::size_t residentMemory(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
    std::size_t pages = 0;
    std::size_t resident = 0;
    file >> pages >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

/// Writes where the thread was when the signal came. For what is about to die, and for runs over a limit.
void writeStack(int /*signal*/, siginfo_t* /*info*/, void* context) {
    std::array<void*, 64> frames;
    const int count = backtrace(frames.data(), static_cast<int>(frames.size()));
    auto* const place =
        reinterpret_cast<void*>(static_cast<const ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]);
    int first = 0;
    while (first < count && frames[static_cast<std::size_t>(first)] != place) ++first;
    if (first == count) {
        // No way back through code without unwind tables, such as FFmpeg's assembly.
        backtrace_symbols_fd(&place, 1, STDERR_FILENO);
        first = std::min(2, count);
    }
    backtrace_symbols_fd(frames.data() + first, count - first, STDERR_FILENO);
}

void writeStackAndDie(int signal, siginfo_t* info, void* context) {
    writeStack(signal, info, context);
    raise(signal);  // as a signal that was sent would not come anew; the handler is gone
}

void installHandlers() {
    // A stack of its own, for overflows of the usual one.
    static std::array<char, 1 << 16> memory;
    stack_t stack{};
    stack.ss_sp = memory.data();
    stack.ss_size = memory.size();
    sigaltstack(&stack, nullptr);
    std::array<void*, 1> unused;
    backtrace(unused.data(), 1);  // loads what it needs now, and not in a handler

    struct sigaction action {};
    action.sa_sigaction = writeStack;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    if (isSanitized()) return;  // which tells more by itself
    action.sa_sigaction = writeStackAndDie;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) sigaction(signal, &action, nullptr);
}

bool hasLeaked() {
#ifdef KVFFMPEG_MUTATION_SANITIZED
    return __lsan_do_recoverable_leak_check() != 0;
#else
    return false;
#endif
}

/// The life of a worker.
[[noreturn]] void work(int socket, const Job& job) {
    installHandlers();
    for (;;) {
        std::uint64_t item = 0;
        if (recv(socket, &item, sizeof item, 0) != static_cast<ssize_t>(sizeof item)) _exit(0);
        if (ftruncate(STDERR_FILENO, 0) != 0) _exit(71);
        Outcome outcome;
        const std::size_t descriptors = openDescriptors();
        resetPeakMemory();
        const double started = secondsOf(CLOCK_PROCESS_CPUTIME_ID);
        job(static_cast<std::size_t>(item), outcome);
        outcome.seconds = secondsOf(CLOCK_PROCESS_CPUTIME_ID) - started;
        outcome.peakBytes = peakMemory();
        const std::size_t left = openDescriptors();
        if (left > descriptors) {
            outcome.failures.push_back(std::to_string(left - descriptors) + " descriptors were left open");
        }
        if (hasLeaked()) outcome.failures.emplace_back("memory was leaked");
        const std::string message = packed(outcome);
        if (send(socket, message.data(), message.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(message.size())) {
            _exit(72);
        }
    }
}

/// A worker as its parent sees it. Its stderr goes to a file without a name.
class Worker {
public:
    explicit Worker(const Job& job) : errors_(std::tmpfile()) {
        if (!errors_) fail("cannot make a temporary file");
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) fail("socketpair");
        const int errors = fileno(errors_.get());
        fcntl(errors, F_SETFL, O_APPEND);
        const pid_t parent = getpid();
        std::fflush(nullptr);  // or the child would write it once more
        pid_ = fork();
        if (pid_ < 0) fail("fork");
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(0);
            close(ends[0]);
            dup2(errors, STDERR_FILENO);
            work(ends[1], job);
        }
        close(ends[1]);
        socket_ = ends[0];
        clock_getcpuclockid(pid_, &processorClock_);
    }
    ~Worker() {
        close(socket_);
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    int socket() const noexcept { return socket_; }
    bool busy() const noexcept { return busy_; }

    void give(std::size_t item) {
        item_ = item;
        busy_ = true;
        overLimit_ = false;
        killedFor_.clear();
        processorStart_ = secondsOf(processorClock_);
        start_ = Clock::now();
        const std::uint64_t number = item;
        // When it has died meanwhile, the parent reads that next.
        (void)send(socket_, &number, sizeof number, MSG_NOSIGNAL);
    }

    /// Lets a run over a limit tell where it is, and kills it when that does not end.
    void watch(const Limits& limits) {
        if (!busy_ || !killedFor_.empty()) return;
        const double used = secondsOf(processorClock_) - processorStart_;
        const double waited = std::chrono::duration<double>(Clock::now() - start_).count();
        const std::size_t resident = residentMemory(pid_);
        const double spent = std::max(used, waited / waitingFactor) / limits.seconds;
        const double filled = static_cast<double>(resident) / static_cast<double>(limits.bytes);
        if (!overLimit_ && (spent > 1 || filled > 1)) {
            overLimit_ = true;
            kill(pid_, SIGUSR1);
        }
        std::ostringstream text;
        text.precision(3);
        if (spent > killFactor) {
            text << "killed after " << used << " s of processor time, " << waited << " s in all";
        } else if (filled > 2) {
            text << "killed with " << resident / 1000000 << " MB";
        }
        killedFor_ = text.str();
        if (!killedFor_.empty()) kill(pid_, SIGKILL);
    }

    /// Reads what the worker has to say. @returns false when it is dead, or no good for another run: what was
    /// leaked or left open would be found again.
    bool receive(const Limits& limits, Result& result) {
        std::vector<char> message(1 << 20);
        const ssize_t size = recv(socket_, message.data(), message.size(), 0);
        result.item = item_;
        if (size <= 0) {
            int status = 0;
            waitpid(pid_, &status, 0);
            pid_ = 0;
            result.death = !killedFor_.empty()   ? killedFor_
                           : WIFSIGNALED(status) ? strsignal(WTERMSIG(status))
                                                 : "exit status " + std::to_string(WEXITSTATUS(status));
            result.report = readErrors();
            return false;
        }
        busy_ = false;
        result.outcome = unpacked(std::string(message.data(), static_cast<std::size_t>(size)));
        Outcome& outcome = result.outcome;
        std::ostringstream text;
        text.precision(3);
        if (outcome.seconds > limits.seconds) {
            text << "took " << outcome.seconds << " s of processor time";
        } else if (overLimit_ && outcome.peakBytes <= limits.bytes) {
            text << "took " << std::chrono::duration<double>(Clock::now() - start_).count() << " s, waiting";
        }
        if (!text.str().empty()) outcome.failures.push_back(text.str());
        if (outcome.peakBytes > limits.bytes) {
            outcome.failures.push_back("took " + std::to_string(outcome.peakBytes / 1000000) +
                                       " MB of memory");
        }
        if (outcome.failures.empty()) return true;
        result.report = readErrors();
        return false;
    }

private:
    struct CloseFile {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };

    std::string readErrors() const {
        std::string text(1 << 16, '\0');
        const ssize_t size = pread(fileno(errors_.get()), text.data(), text.size(), 0);
        text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        return text;
    }

    std::unique_ptr<std::FILE, CloseFile> errors_;
    int socket_ = -1;
    pid_t pid_ = 0;
    clockid_t processorClock_ = 0;
    std::size_t item_ = 0;
    bool busy_ = false;
    bool overLimit_ = false;
    std::string killedFor_;
    double processorStart_ = 0;
    Clock::time_point start_;
};

}  // namespace

bool isSanitized() noexcept {
#ifdef KVFFMPEG_MUTATION_SANITIZED
    return true;
#else
    return false;
#endif
}

void runInWorkers(std::size_t items, unsigned workers, const Limits& limits, const Job& job,
                  const std::function<void(const Result&)>& deliver) {
    std::vector<std::unique_ptr<Worker>> pool(std::min<std::size_t>(std::max(workers, 1U), items));
    std::size_t next = 0;
    for (std::size_t done = 0; done < items;) {
        std::vector<pollfd> waiting;
        for (auto& worker : pool) {
            if (!worker) worker = std::make_unique<Worker>(job);
            if (!worker->busy() && next < items) worker->give(next++);
            waiting.push_back({worker->socket(), POLLIN, 0});
        }
        if (poll(waiting.data(), waiting.size(), 20) < 0 && errno != EINTR) fail("poll");
        for (std::size_t i = 0; i < pool.size(); ++i) {
            if (waiting[i].revents == 0) {
                pool[i]->watch(limits);
                continue;
            }
            const bool wasBusy = pool[i]->busy();
            Result result;
            if (!pool[i]->receive(limits, result)) pool[i].reset();
            if (!wasBusy) continue;  // somebody else has ended it
            ++done;
            deliver(result);
        }
    }
}

}  // namespace kvffmpeg::mutation
