#include "interruption.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>

namespace kvffmpeg::tool {
namespace {

std::atomic<int> signalNumber{0};
std::atomic<FormatContext*> activeInput{nullptr};
std::atomic<int> handlersRunning{0};

// Only lock-free atomics may be touched in a signal handler.
static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);
static_assert(std::atomic<FormatContext*>::is_always_lock_free);

extern "C" void onSignal(int number) {
    const int savedErrno = errno;
    if (number != SIGALRM) signalNumber.store(number);
    handlersRunning.fetch_add(1);
    if (FormatContext* const input = activeInput.load()) input->interrupt();
    handlersRunning.fetch_sub(1);
    // Once more in a second: an interruption is lost if it comes right before the input is opened, and a read
    // goes to sleep if it comes right before that.
    alarm(1);
    errno = savedErrno;
}

void handle(int number, int flags) {
    struct sigaction current = {};
    sigaction(number, nullptr, &current);
    if (current.sa_handler == SIG_IGN) return;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = flags;  // without SA_RESTART: blocked calls are to return
    sigemptyset(&action.sa_mask);
    sigaction(number, &action, nullptr);
}

}  // namespace

void installSignalHandlers() {
    handle(SIGALRM, 0);
    // The default handler comes back with the first signal, and ends the process with the second.
    handle(SIGINT, static_cast<int>(SA_RESETHAND));
    handle(SIGTERM, static_cast<int>(SA_RESETHAND));
    std::signal(SIGPIPE, SIG_IGN);
}

int receivedSignal() noexcept {
    return signalNumber.load();
}

void throwIfInterrupted() {
    if (receivedSignal() != 0) throw Interrupted();
}

InterruptibleInput::InterruptibleInput(FormatContext& input) noexcept {
    activeInput.store(&input);
}

InterruptibleInput::~InterruptibleInput() {
    activeInput.store(nullptr);
    // FFmpeg has threads that may be running the handler, with the pointer in hand.
    while (handlersRunning.load() != 0) {
    }
}

}  // namespace kvffmpeg::tool
