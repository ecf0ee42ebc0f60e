// The input as a media file: opened with and without stream information, read, decoded, and sought in.

#include <memory>
#include <vector>

#include "fuzz_support.h"

extern "C" {
#include <libavutil/base64.h>
}

namespace kvffmpeg {
namespace {

using fuzz::mayThrow;

// Of one pass over a file. A few bytes can promise minutes of large pictures.
constexpr int mostPackets = 200;
constexpr std::int64_t mostDecodedPixels = 4 << 20;

class Pass {
public:
    explicit Pass(FormatContext& input) : input_(input) {}

    /// Reads on, to the end if it is not too far.
    void read() {
        mayThrow([&] {
            while (packets_ < mostPackets) {
                const std::shared_ptr<Packet> packet = input_.readPacket();
                if (!packet) {
                    KVFFMPEG_FUZZ_REQUIRE(input_.isEOF());
                    return;
                }
                ++packets_;
                KVFFMPEG_FUZZ_REQUIRE((packet->pts() == AV_NOPTS_VALUE) == (packet->dts() == AV_NOPTS_VALUE));
                decode(packet);
            }
        });
    }

private:
    void decode(const std::shared_ptr<Packet>& packet) {
        const AVStream* track = input_.trackAtIndex(packet->streamIndex());
        KVFFMPEG_FUZZ_REQUIRE(track != nullptr);
        const std::int64_t pixels = std::int64_t{track->codecpar->width} * track->codecpar->height;
        if (pixels > mostDecodedPixels || decodedPixels_ > mostDecodedPixels) return;
        decodedPixels_ += pixels;
        const Frame frame = fuzz::decode(input_, packet);
        decodedPixels_ += std::int64_t{frame.picture().width()} * frame.picture().height();
        (void)frame.debugDescription();
    }

    FormatContext& input_;
    int packets_ = 0;
    std::int64_t decodedPixels_ = 0;
};

void lookAt(const FormatContext& input) {
    for (unsigned int track = 0; track <= input.tracksNumber(); ++track) {
        (void)input.trackAtIndex(track);
        (void)input.channelsAtIndex(track);
        (void)input.channelLayoutAtIndex(track);
    }
    (void)input.metadata("title");
    (void)input.isStreamed();
}

void use(const std::string& url, bool findStreamInfo) {
    FormatContext input(url);
    mayThrow([&] { input.open(std::string(), findStreamInfo); });
    lookAt(input);
    Pass(input).read();
    for (const std::int64_t time : {std::int64_t{0}, std::int64_t{40000}, std::int64_t{1} << 40}) {
        if (mayThrow([&] { input.seek(Timestamp(time)); })) {
            KVFFMPEG_FUZZ_REQUIRE(!input.isEOF());
            Pass(input).read();
        }
    }
    // Another input on the same file takes the decoders over.
    FormatContext second(url);
    mayThrow([&] { second.open(std::string(), findStreamInfo); });
    mayThrow([&] { second.discardTrackAtIndex(0, AVDISCARD_ALL); });
    second.moveDecodersFromContext(&input);
    input.close();
    Pass(second).read();
}

/// The same bytes as an input that cannot seek.
std::string dataUrl(const std::uint8_t* data, std::size_t size) {
    std::string text(AV_BASE64_SIZE(size), '\0');
    KVFFMPEG_FUZZ_REQUIRE(
        av_base64_encode(&text[0], static_cast<int>(text.size()), data, static_cast<int>(size)) != nullptr);
    text.pop_back();  // the final zero
    return "data:application/octet-stream;base64," + text;
}

}  // namespace
}  // namespace kvffmpeg

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kvffmpeg;
    static const bool prepared = fuzz::prepare();
    (void)prepared;
    const fuzz::MemoryFile file(data, size);
    use(file.path(), false);
    use(file.path(), true);
    // Not for all inputs, as it takes half as long again.
    if (size % 2 == 1 && size < 65536) use(dataUrl(data, size), true);
    return 0;
}
