#include "kvffmpeg/utils.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "ffmpeg_compat.h"
#include "ffmpeg_ptr.h"
#include "kvffmpeg/format_context.h"
#include "kvffmpeg/scaler.h"
#include "lone_picture.h"
#include "simd_planes.h"
#include "text_format.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavformat/avio.h>
}

namespace kvffmpeg {
namespace {

/// A file that is written through libavformat's I/O layer.
class Output {
public:
    explicit Output(const std::string& path) : path_(path) {
        AVIOContext* context = nullptr;
        if (avio_open(&context, path.c_str(), AVIO_FLAG_WRITE) < 0) {
            throw std::runtime_error(formatText("Could not open output file %s", path));
        }
        context_.reset(context);
    }

    /// Writes, flushes and closes.
    void write(const std::uint8_t* data, int size) {
        avio_write(context_.get(), data, size);
        avio_flush(context_.get());
        const bool failed = context_->error < 0;
        if (avio_close(context_.release()) < 0 || failed) {
            throw std::runtime_error(formatText("Could not write output file %s", path_));
        }
    }

private:
    struct Close {
        void operator()(AVIOContext* context) const noexcept { avio_close(context); }
    };

    std::string path_;
    std::unique_ptr<AVIOContext, Close> context_;
};

AVCodecID codecForPath(const std::string& path) {
    auto* format = av_guess_format(nullptr, path.c_str(), nullptr);
    if (!format) throw std::runtime_error(formatText("Could not find format for %s", path));
    return av_guess_codec(format, nullptr, path.c_str(), nullptr, AVMEDIA_TYPE_VIDEO);
}

CodecContextPtr openEncoder(const AVCodec* encoder, const Picture& picture) {
    CodecContextPtr context(avcodec_alloc_context3(encoder));
    if (context) {
        context->width = picture.width();
        context->height = picture.height();
        context->time_base = AVRational{1, 1};
        context->bit_rate = 4000000;
        context->pix_fmt = picture.pixelFormat();
        context->qmax = 8;
        context->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;  // JPEG in limited range
    }
    // Only video encoders take pictures; libavcodec ends the process when a subtitle encoder is given one.
    if (!context || encoder->type != AVMEDIA_TYPE_VIDEO ||
        avcodec_open2(context.get(), encoder, nullptr) != 0) {
        throw std::runtime_error(formatText("Could not open %s encoder", encoder->name));
    }
    return context;
}

}  // namespace

Frame loadPictureAsFrame(const std::string& path) {
    FormatContext input(path);
    input.open(std::string(), false);
    const std::shared_ptr<Packet> packet = input.readPacket();
    return packet ? decodeLonePacket(input, path, packet) : Frame();
}

Picture loadPicture(const std::string& path) {
    return loadPictureAsFrame(path).picture();
}

void savePicture(Picture picture, const std::string& path, AVCodecID codecId) {
    compat::registerAll();
    if (codecId == AV_CODEC_ID_NONE) codecId = codecForPath(path);
    const AVCodec* encoder = avcodec_find_encoder(codecId);
    if (!encoder) throw std::runtime_error(formatText("Could not find encoder for %s", path));

    const std::vector<AVPixelFormat> formats = compat::encoderPixelFormats(encoder);
    if (!formats.empty() &&
        std::find(formats.begin(), formats.end(), picture.pixelFormat()) == formats.end()) {
        picture = Scaler().scale(picture, picture.size(), formats.front(), AVCOL_RANGE_UNSPECIFIED);
    }
    const CodecContextPtr context = openEncoder(encoder, picture);
    Output output(path);

    const PacketPtr packet = makePacket();
    FramePtr frame = makeFrame();
    Frame(picture, Timestamp()).fillAVFrame(frame.get());
    frame = withPadding(std::move(frame), picture);
    if (compat::encodePicture(context.get(), frame.get(), packet.get()) < 0) {
        throw std::runtime_error("Encoding failed");
    }
    output.write(packet->data, packet->size);
}

}  // namespace kvffmpeg
