#include "evenly_spaced.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "console.h"
#include "tracks.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace kvffmpeg::tool {
namespace {

struct Span {
    Timestamp start;
    std::int64_t duration = 0;  ///< In microseconds.
};

/// When the track's frames are shown, as its container has it; nothing when that is not known.
std::optional<Span> spanOf(const Input& input, unsigned int track) {
    constexpr std::int64_t longest =
        std::int64_t{1000000} * 3600 * 24 * 365 * 100;  // beyond that it is no time
    const AVStream& stream = *input.context().trackAtIndex(track);
    const AVRational microseconds{1, 1000000};
    Span span{input.start(), input.context().getAVFormatContext()->duration};
    if (stream.duration > 0) span.duration = av_rescale_q(stream.duration, stream.time_base, microseconds);
    if (stream.start_time != AV_NOPTS_VALUE) {
        span.start = Timestamp(av_rescale_q(stream.start_time, stream.time_base, microseconds)) +
                     input.timeOrigin().value_or(Timestamp(0));
    }
    if (span.duration <= 0 || span.duration > longest) return std::nullopt;
    return span;
}

/// Finds the frames that are shown at given times, each later than the one before.
class FrameFinder {
public:
    FrameFinder(Input& input, unsigned int track, Timestamp start)
        : input_(input), track_(track), position_(start) {}

    /// The frame that is shown at `time`; the first one when `time` is before that. Empty when the input
    /// cannot seek or no frame has a time.
    Frame at(Timestamp time) {
        // Seeking goes back to a key frame: not far ahead it would only cost.
        const Timestamp near(2000000);
        if (time - position_ > near && !seek(time)) return Frame();
        if (next_.empty() && !isAtEnd_) read();
        while (!next_.empty() && next_.PTS() <= time) {
            shown_ = std::move(next_);
            read();
        }
        return shown_.empty() ? next_ : shown_;
    }

private:
    bool seek(Timestamp time) {
        if (!seekBefore(input_, track_, time)) return false;
        // Otherwise frames from before, which the decoder still has, come out first.
        if (AVCodecContext* const decoder = input_.context().getCodecContext(track_)) {
            avcodec_flush_buffers(decoder);
        }
        shown_ = Frame();
        next_ = Frame();
        isAtEnd_ = false;
        return true;
    }

    void read() {
        do {
            next_ = nextFrame(input_, track_);
        } while (!next_.empty() && !hasTime(next_));
        isAtEnd_ = next_.empty();
        if (!isAtEnd_) position_ = next_.PTS();
    }

    Input& input_;
    unsigned int track_;
    Timestamp position_;  ///< Of what was read last.
    Frame shown_;         ///< The last one that is not later than the time asked for.
    Frame next_;          ///< The one behind that.
    bool isAtEnd_ = false;
};

/// Those that can be found: all, unless the input or its times do not allow it.
std::vector<SheetCell> bySeeking(Input& input, unsigned int track, std::size_t count, const CellMaker& make) {
    std::vector<SheetCell> cells;
    const std::optional<Span> span = spanOf(input, track);
    if (!span) return cells;
    FrameFinder finder(input, track, span->start);
    const Progress progress(" pictures/s");
    Timestamp last;
    const auto shares = static_cast<std::int64_t>(2 * count);
    for (std::int64_t middle = 1; middle < shares; middle += 2) {
        const Timestamp time = span->start + Timestamp(av_rescale(span->duration, middle, shares));
        const Frame frame = finder.at(time);
        if (frame.empty()) return cells;
        if (!cells.empty() && frame.PTS() == last) return cells;  // shown for longer than a share
        last = frame.PTS();
        cells.push_back(make(frame));
        if (progressIsDue()) {
            const auto found = static_cast<double>(cells.size());
            progress.show(std::to_string(cells.size()) + " of " + std::to_string(count) + " pictures", found,
                          found / static_cast<double>(count));
        }
    }
    return cells;
}

/// Keeps every frame at first, and only every second one each time that there are too many.
std::vector<SheetCell> byReading(Input& input, unsigned int track, std::size_t count, const CellMaker& make) {
    std::vector<SheetCell> kept;
    std::uint64_t frames = 0;
    std::uint64_t interval = 1;
    const Progress progress(" pictures/s");
    for (Frame frame = nextFrame(input, track); !frame.empty(); frame = nextFrame(input, track)) {
        if (frames++ % interval == 0) {
            if (kept.size() == 2 * count) {
                for (std::size_t i = 0; i < count; ++i) kept[i] = std::move(kept[2 * i]);
                kept.resize(count);
                interval *= 2;
            }
            kept.push_back(make(frame));
        }
        if (progressIsDue()) {
            const std::string position = positionText(input, frame);
            progress.show(
                std::to_string(frames) + " pictures read" + (position.empty() ? "" : ", " + position),
                static_cast<double>(frames), shareBefore(input, frame));
        }
    }
    if (kept.size() <= count) return kept;
    std::vector<SheetCell> chosen;
    for (std::size_t i = 0; i < count; ++i) {
        chosen.push_back(std::move(kept[(2 * i + 1) * kept.size() / (2 * count)]));
    }
    return chosen;
}

}  // namespace

std::vector<SheetCell> evenlySpaced(Input& input, unsigned int track, std::size_t count,
                                    const CellMaker& make) {
    if (!input.context().isStreamed()) {
        std::vector<SheetCell> cells = bySeeking(input, track, count, make);
        if (cells.size() == count) return cells;
        throwIfInterrupted();
        input.reopen();
        discardOthers(input.context(), track);
    }
    return byReading(input, track, count, make);
}

}  // namespace kvffmpeg::tool
