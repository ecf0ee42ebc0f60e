// Any bytes as packets of H.264 and of other video, with any times: the rule for key frames, the move to the
// common time line, and seeking.
//
// The input is a series of packets for a file (FLV) that is made of them, and of seeks in it. Each begins
// with a byte: below 192 it is the length of a packet's payload, followed by its time in milliseconds (4
// bytes), the offset of its presentation (2), its kind (1) and the payload; otherwise a seek to a value (8)
// in a time base (4 and 4).

#include <memory>
#include <vector>

#include "fuzz_support.h"

namespace kvffmpeg {
namespace {

using fuzz::mayThrow;

constexpr int mostSteps = 40;
constexpr std::size_t mostSeeks = 8;

/// The rule by the book: a byte after the other, with what was seen so far.
bool isKeyFrameByTheBook(const std::vector<std::uint8_t>& payload) {
    bool sps = false;
    bool pps = false;
    std::size_t i = 0;
    while (i + 3 < payload.size()) {
        if (payload[i] != 0 || payload[i + 1] != 0 || payload[i + 2] != 1) {
            ++i;
            continue;
        }
        const int type = payload[i + 3] & 31;
        if (type == 7) sps = true;
        if (type == 8 && sps) pps = true;
        if (type == 5 && pps) return true;
        i += 4;
    }
    return false;
}

class FlvWriter {
public:
    FlvWriter() { bytes_ = {'F', 'L', 'V', 1, 1, 0, 0, 0, 9, 0, 0, 0, 0}; }

    void addVideo(std::uint32_t milliseconds, const std::vector<std::uint8_t>& body) {
        const std::size_t begin = bytes_.size();
        bytes_.push_back(9);
        number(static_cast<std::uint32_t>(body.size()), 3);
        number(milliseconds & 0xFFFFFF, 3);
        bytes_.push_back(static_cast<std::uint8_t>(milliseconds >> 24));
        number(0, 3);
        bytes_.insert(bytes_.end(), body.begin(), body.end());
        number(static_cast<std::uint32_t>(bytes_.size() - begin), 4);
    }
    const std::vector<std::uint8_t>& bytes() const { return bytes_; }

private:
    void number(std::uint32_t value, int count) {
        while (count-- > 0) bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * count)));
    }

    std::vector<std::uint8_t> bytes_;
};

/// An opened input whose only track is video in H.264, or in what the format holds.
FormatContext openBare(const char* format) {
    static const std::uint8_t bytes[] = {0, 0, 0, 1, 9, 16, 0, 0, 0, 1, 9, 16};
    const fuzz::MemoryFile file(bytes, sizeof bytes);
    FormatContext input(file.path());
    mayThrow([&] { input.open(format, false); });
    return input;
}

void checkKeyFrame(const std::vector<std::uint8_t>& payload, int flags, int track) {
    static const FormatContext h264 = openBare("h264");
    static const FormatContext other = openBare("m4v");
    static const FormatContext closed;
    // To the byte, so that a step too far is seen.
    std::vector<std::uint8_t> exact(payload);
    exact.shrink_to_fit();
    const auto flagsAfter = [&](const FormatContext& input) {
        AVPacket* packet = av_packet_alloc();
        if (!packet) return flags;
        packet->data = exact.data();
        packet->size = static_cast<int>(exact.size());
        packet->flags = flags;
        packet->stream_index = track;
        input.setKeyFrameFlag(packet);
        const int result = packet->flags;
        packet->data = nullptr;
        packet->size = 0;
        av_packet_free(&packet);
        return result;
    };
    KVFFMPEG_FUZZ_REQUIRE(flagsAfter(closed) == flags);
    const bool known = track == 0;
    if (h264.tracksNumber() == 1) {
        const int expected =
            isKeyFrameByTheBook(payload) ? flags | AV_PKT_FLAG_KEY : flags & ~AV_PKT_FLAG_KEY;
        KVFFMPEG_FUZZ_REQUIRE(flagsAfter(h264) == (known ? expected : flags));
    }
    if (other.tracksNumber() == 1) {
        KVFFMPEG_FUZZ_REQUIRE(flagsAfter(other) == (known ? flags | AV_PKT_FLAG_KEY : flags));
    }
    h264.setKeyFrameFlag(nullptr);
}

struct Script {
    FlvWriter file;
    std::vector<Timestamp> seeks;
};

Script readScript(fuzz::Input input) {
    Script script;
    for (int step = 0; step < mostSteps && input.left() > 0; ++step) {
        const std::size_t length = input.byte();
        if (length >= 192) {
            if (script.seeks.size() == mostSeeks) break;
            const std::int64_t value = input.signed64();
            const std::int32_t num = input.signed32();
            const std::int32_t den = input.signed32();
            // By contract time bases are not checked; FFmpeg takes any of them but these.
            script.seeks.emplace_back(value, std::max(num, 0), den > 0 ? den : 1);
            continue;
        }
        const auto time = static_cast<std::uint32_t>(input.number(4));
        const auto offset = static_cast<std::uint16_t>(input.number(2));
        const std::uint8_t kind = input.byte();
        const std::string payload = input.text(length);
        // Frame type and codec, of which 7 is H.264; then what its packets have before the payload.
        std::vector<std::uint8_t> body = {kind};
        if ((kind & 15) == 7) {
            body.insert(body.end(),
                        {1, 0, static_cast<std::uint8_t>(offset >> 8), static_cast<std::uint8_t>(offset)});
        }
        body.insert(body.end(), payload.begin(), payload.end());
        script.file.addVideo(time, body);
        checkKeyFrame(std::vector<std::uint8_t>(payload.begin(), payload.end()), offset, kind >> 7);
    }
    return script;
}

/// Decodes only if asked to, which takes much longer than all the rest.
void readSome(FormatContext& input, bool decode) {
    mayThrow([&] {
        for (int i = 0; i < mostSteps; ++i) {
            const std::shared_ptr<Packet> packet = input.readPacket();
            if (!packet) return;
            KVFFMPEG_FUZZ_REQUIRE((packet->pts() == AV_NOPTS_VALUE) == (packet->dts() == AV_NOPTS_VALUE));
            const AVCodecParameters* codec = input.trackAtIndex(packet->streamIndex())->codecpar;
            if (codec->codec_type == AVMEDIA_TYPE_VIDEO) {
                const std::vector<std::uint8_t> payload(packet->data, packet->data + packet->size());
                KVFFMPEG_FUZZ_REQUIRE(packet->isKeyFrame() ==
                                      (codec->codec_id != AV_CODEC_ID_H264 || isKeyFrameByTheBook(payload)));
            }
            if (decode) (void)fuzz::decode(input, packet);
        }
    });
}

}  // namespace
}  // namespace kvffmpeg

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kvffmpeg;
    static const bool prepared = fuzz::prepare();
    (void)prepared;
    const Script script = readScript(fuzz::Input(data, size));
    const fuzz::MemoryFile file(script.file.bytes().data(), script.file.bytes().size());
    FormatContext input(file.path());
    if (!mayThrow([&] { input.open("flv", false); })) return 0;
    readSome(input, true);
    for (const Timestamp& time : script.seeks) {
        if (mayThrow([&] { input.seek(time); })) {
            KVFFMPEG_FUZZ_REQUIRE(!input.isEOF());
            readSome(input, false);
        }
    }
    return 0;
}
