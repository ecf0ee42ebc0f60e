#include "point.h"

#include <dirent.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <typeinfo>

namespace kvffmpeg::faults {
namespace {

// For the signal handler, which has no other way to them.
Shim* signalShim = nullptr;
Report* signalReport = nullptr;
alignas(16) std::array<char, 1U << 16> signalStack;

#if defined(__x86_64__)
/// A call of a bad pointer ends where nothing is known, and with it the unwinding. What called is on top of
/// the stack.
void addCaller(Backtrace& backtrace, const ucontext_t& context) noexcept {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(context.uc_mcontext.gregs[REG_RIP]), &info) != 0) return;
    backtrace.frames[0] = reinterpret_cast<void*>(context.uc_mcontext.gregs[REG_RIP]);
    backtrace.frames[1] = *reinterpret_cast<void**>(context.uc_mcontext.gregs[REG_RSP]);
    backtrace.count = 2;
}
#endif

/// Drops the handler's own frames: what remains begins where the signal came in.
void keepFrom(Backtrace& backtrace, const void* instruction) noexcept {
    const auto end = backtrace.frames.begin() + backtrace.count;
    const auto first = std::find(backtrace.frames.begin(), end, instruction);
    // After a jump to nowhere there is no such frame; the handler's and the trampoline's are the first two.
    const auto from = first == end ? backtrace.frames.begin() + std::min(backtrace.count, 2) : first;
    backtrace.count =
        static_cast<int>(std::copy(from, end, backtrace.frames.begin()) - backtrace.frames.begin());
    // What is called an address of return elsewhere is here the instruction itself.
    if (first != end) backtrace.frames[0] = static_cast<char*>(backtrace.frames[0]) + 1;
}

extern "C" void onFatalSignal(int number, siginfo_t* /*info*/, void* context) {
    signalShim->armed = false;
    signal(SIGALRM, SIG_DFL);
    alarm(2);  // if the handler itself should hang
    for (const int other : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) signal(other, SIG_DFL);
    Report& report = *signalReport;
    report.signal = number;
    report.fired = signalShim->fired;
    report.firedAt = signalShim->firedAt;
    Backtrace& backtrace = report.crashedAt;
    backtrace.count = ::backtrace(backtrace.frames.data(), static_cast<int>(backtrace.frames.size()));
#if defined(__x86_64__)
    const auto& interrupted = *static_cast<const ucontext_t*>(context);
    keepFrom(backtrace, reinterpret_cast<const void*>(interrupted.uc_mcontext.gregs[REG_RIP]));
    if (number != SIGALRM) addCaller(backtrace, interrupted);
#else
    keepFrom(backtrace, nullptr);
    (void)context;
#endif
    _exit(1);
}

void catchSignals() noexcept {
    stack_t stack{};
    stack.ss_sp = signalStack.data();
    stack.ss_size = signalStack.size();
    sigaltstack(&stack, nullptr);
    struct sigaction action {};
    action.sa_sigaction = onFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) {
        sigaction(number, &action, nullptr);
    }
    std::set_terminate(std::abort);  // the default one allocates, and prints
}

int openDescriptors() noexcept {
    DIR* folder = opendir("/proc/self/fd");
    if (!folder) return -1;
    int count = 0;
    while (readdir(folder)) ++count;
    closedir(folder);
    return count;
}

void noteException(Report& report) noexcept {
    const auto note = [&report](Thrown thrown, const char* text) {
        report.thrown = thrown;
        std::strncpy(report.text.data(), text, report.text.size() - 1);
    };
    try {
        throw;
    } catch (const std::bad_alloc& error) {
        note(Thrown::badAlloc, error.what());
    } catch (const std::exception& error) {
        const std::type_info& type = typeid(error);
        if (type == typeid(std::runtime_error)) {
            note(Thrown::runtimeError, error.what());
        } else if (type == typeid(std::out_of_range)) {
            note(Thrown::outOfRange, error.what());
        } else if (type == typeid(std::range_error)) {
            note(Thrown::rangeError, error.what());
        } else {
            note(Thrown::other, error.what());
        }
    } catch (...) {
        note(Thrown::other, "of no standard type");
    }
}

/// Whether a block holds the address of another, as far as can be seen.
bool holds(const LiveBlock& holder, const LiveBlock& held) noexcept {
    const auto* words = static_cast<void* const*>(holder.address);
    return std::find(words, words + holder.size / sizeof(void*), held.address) !=
           words + holder.size / sizeof(void*);
}

/// Notes what is live, and first of all what no other live block holds: whoever lost that lost the rest with
/// it.
void noteLeaks(const Shim& shim, Report& report) {
    static std::array<LiveBlock, 1024> blocks;
    report.leakedBlocks = shim.liveBlocks(blocks.data(), blocks.size());
    const auto end =
        blocks.begin() + static_cast<std::ptrdiff_t>(std::min(report.leakedBlocks, blocks.size()));
    std::sort(blocks.begin(), end,
              [](const LiveBlock& a, const LiveBlock& b) { return a.ordinal < b.ordinal; });
    for (auto block = blocks.begin(); block != end; ++block) {
        report.leakedBytes += block->size;
        const bool held = std::any_of(blocks.begin(), end, [&](const LiveBlock& other) {
            return other.address != block->address && holds(other, *block);
        });
        if (!held && report.leakedRoots < report.leaked.size()) {
            report.leaked[report.leakedRoots++] = block->ordinal;
        }
    }
    // Rings have no first block.
    for (auto block = blocks.begin(); report.leakedRoots == 0 && block != end; ++block) {
        report.leaked[report.leakedRoots++] = block->ordinal;
    }
}

void runInChild(Shim& shim, Report& report, const Operation& operation, const Fault& fault,
                std::uint64_t tracedOrdinal) {
    const int descriptorsBefore = openDescriptors();
    shim.reset();
    shim.fault = fault;
    shim.tracedOrdinal = tracedOrdinal;
    shim.tracking = true;
    std::unique_ptr<Instance> instance = operation.make();

    report.stage = Stage::run;
    shim.armed = true;
    try {
        instance->run();
        shim.armed = false;
        report.result = instance->result();
    } catch (...) {
        shim.armed = false;
        noteException(report);
    }
    report.stage = Stage::close;
    shim.armed = true;
    instance.reset();
    shim.armed = false;
    shim.tracking = false;

    report.allocations = shim.allocations;
    report.fileCalls = shim.fileCalls;
    report.fired = shim.fired;
    report.firedAt = shim.firedAt;
    report.tracedAt = shim.tracedAt;
    report.overflowed = shim.overflowed;
    if (fault.effect == Effect::none) report.fileCallKinds = shim.fileCallKinds;
    noteLeaks(shim, report);
    report.descriptors = openDescriptors() - descriptorsBefore;

    report.stage = Stage::again;
    try {
        const std::unique_ptr<Instance> another = operation.make();
        another->run();
        report.resultOfNew = another->result();
        report.newGaveResult = true;
    } catch (...) {
    }
    report.stage = Stage::done;
}

}  // namespace

Point::Point() {
    void* memory = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no memory to share with forked processes");
    report_ = new (memory) Report;
}

Point::~Point() {
    munmap(report_, sizeof(Report));
}

void Point::start(Shim& shim, const Operation& operation, const Fault& fault, unsigned seconds,
                  std::uint64_t tracedOrdinal) {
    new (report_) Report;
    child_ = fork();
    if (child_ < 0) throw std::runtime_error("cannot fork");
    if (child_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signalShim = &shim;
    signalReport = report_;
    catchSignals();
    alarm(seconds);
    runInChild(shim, *report_, operation, fault, tracedOrdinal);
    _exit(0);
}

const Report& Point::finish() {
    int status = 0;
    while (waitpid(child_, &status, 0) < 0 && errno == EINTR) {
    }
    // Ended by something that no handler saw: by exit(), or by a signal that cannot be caught.
    if (report_->stage != Stage::done && report_->signal == 0) {
        report_->signal = WIFSIGNALED(status) ? WTERMSIG(status) : -1;
    }
    return *report_;
}

}  // namespace kvffmpeg::faults
