#pragma once

#include <memory>
#include <optional>
#include <string>

#include "interruption.h"
#include "kvffmpeg/format_context.h"

namespace kvffmpeg::tool {

struct InputOptions {
    std::string url;     ///< "-" is standard input.
    std::string format;  ///< Empty: probe.
};

/// An open input that signals interrupt. Its errors name it.
class Input {
public:
    /// Opens it. @throws UsageError when there is no such format; std::runtime_error when it cannot be
    /// opened.
    explicit Input(const InputOptions& options);

    FormatContext& context() noexcept { return context_; }
    const FormatContext& context() const noexcept { return context_; }
    const std::string& name() const noexcept { return options_.url; }

    /// What the library adds to the times of the container; nothing when it adds nothing.
    std::optional<Timestamp> timeOrigin() const;
    /// Where the container says that its own time line starts.
    std::optional<Timestamp> containerStart() const;
    /// How long the container says that it is; nothing where it does not say.
    std::optional<Timestamp> duration() const;
    /// What of its bytes were read, 0 to 1; nothing when their number is not known.
    std::optional<double> shareRead() const;
    /// Where the input starts on the time line of its packets.
    Timestamp start() const;

    /// The next packet, null at the end. @throws Interrupted; std::runtime_error.
    std::shared_ptr<Packet> readPacket();
    /// Seeks; false when the input does not support that, after which it has to be reopened.
    bool seek(Timestamp target);
    void reopen();

private:
    void open();

    InputOptions options_;
    FormatContext context_;
    InterruptibleInput interruptible_;
};

/// Pictures per second of a video track on average; nothing when unknown.
std::optional<AVRational> frameRate(const AVStream& track);

}  // namespace kvffmpeg::tool
