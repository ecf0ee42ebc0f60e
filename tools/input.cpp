#include "input.h"

#include <cstdlib>
#include <stdexcept>

#include "errors.h"

namespace kvffmpeg::tool {
namespace {

/// The library takes an unknown name for none; for somebody who types it, it is a mistake. Call when the
/// library has been asked to open something: before that, old releases of FFmpeg know no format at all.
void requireKnownFormat(const std::string& name) {
    if (!name.empty() && !av_find_input_format(name.c_str())) {
        throw UsageError("--format \"" + name + "\": no such input format");
    }
}

std::string urlOf(const InputOptions& options) {
    return options.url == "-" ? "pipe:0" : options.url;
}

}  // namespace

Input::Input(const InputOptions& options)
    : options_(options), context_(urlOf(options)), interruptible_(context_) {
    context_.setInterruptCallback();
    open();
}

void Input::open() {
    throwIfInterrupted();
    try {
        context_.open(options_.format);
    } catch (const std::runtime_error& error) {
        throwIfInterrupted();
        requireKnownFormat(options_.format);
        throw std::runtime_error(name() + ": " + error.what());
    }
    requireKnownFormat(options_.format);
}

void Input::reopen() {
    context_.close();
    open();
}

std::optional<Timestamp> Input::timeOrigin() const {
    const std::int64_t realTime = context_.getAVFormatContext()->start_time_realtime;
    if (realTime != 0 && realTime != AV_NOPTS_VALUE) return Timestamp(realTime);
    const std::string text = context_.metadata("timeorigin");
    if (text.empty()) return std::nullopt;
    return Timestamp(std::int64_t{std::strtoll(text.c_str(), nullptr, 10)});
}

std::optional<Timestamp> Input::containerStart() const {
    const std::int64_t start = context_.getAVFormatContext()->start_time;
    if (start == AV_NOPTS_VALUE) return std::nullopt;
    return Timestamp(start);
}

std::optional<Timestamp> Input::duration() const {
    const std::int64_t duration = context_.getAVFormatContext()->duration;
    return duration > 0 ? std::optional<Timestamp>(Timestamp(duration)) : std::nullopt;
}

std::optional<double> Input::shareRead() const {
    AVIOContext* const bytes = context_.getAVFormatContext()->pb;
    const std::int64_t size = bytes && !context_.isStreamed() ? avio_size(bytes) : 0;
    if (size <= 0) return std::nullopt;
    return static_cast<double>(avio_tell(bytes)) / static_cast<double>(size);
}

Timestamp Input::start() const {
    return containerStart().value_or(Timestamp(0)) + timeOrigin().value_or(Timestamp(0));
}

std::shared_ptr<Packet> Input::readPacket() {
    throwIfInterrupted();
    try {
        std::shared_ptr<Packet> packet = context_.readPacket();
        // Some demuxers take an interruption for the end.
        if (!packet) throwIfInterrupted();
        return packet;
    } catch (const std::runtime_error& error) {
        throwIfInterrupted();
        throw std::runtime_error(name() + ": " + error.what());
    }
}

bool Input::seek(Timestamp target) {
    try {
        context_.seek(target);
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

std::optional<AVRational> frameRate(const AVStream& track) {
    // Not r_frame_rate: where there is no average, that is often the time base turned over.
    const AVRational rate = track.avg_frame_rate;
    return rate.num > 0 && rate.den > 0 ? std::optional<AVRational>(rate) : std::nullopt;
}

}  // namespace kvffmpeg::tool
