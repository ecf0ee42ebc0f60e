#pragma once

#include "kvffmpeg/format_context.h"

namespace kvffmpeg::tool {

/// Thrown to end the program after a signal; not an exception that anything else catches.
struct Interrupted {};

/// From here on SIGINT and SIGTERM end what an `InterruptibleInput` is doing; a second one of the same kind
/// ends the process. What is ignored already, as in jobs that outlive their terminal, stays so. Writing to a
/// closed pipe is an error like others.
void installSignalHandlers();

/// The signal that asked to end, 0 without one.
int receivedSignal() noexcept;
/// @throws Interrupted after a signal.
void throwIfInterrupted();

/// While it lives, signals interrupt the given input. One at a time.
class InterruptibleInput {
public:
    explicit InterruptibleInput(FormatContext& input) noexcept;
    ~InterruptibleInput();
    InterruptibleInput(const InterruptibleInput&) = delete;
    InterruptibleInput& operator=(const InterruptibleInput&) = delete;
};

}  // namespace kvffmpeg::tool
