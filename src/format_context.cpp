#include "kvffmpeg/format_context.h"

#include <array>
#include <climits>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "ffmpeg_compat.h"
#include "ffmpeg_ptr.h"
#include "input_rules.h"
#include "logger/logger.h"
#include "text_format.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/error.h>
}

namespace kvffmpeg {

/// The addresses of all living FormatContexts, for FFmpeg's interrupt callback. FFmpeg copies callback and
/// address into every nested I/O context, where they cannot be changed when the FormatContext is moved; the
/// callback may thus be asked about an object that is gone, and must not look into it.
///
/// A hash table of intrusive lists: entering and leaving never fail, and asking locks one bucket of many.
class LivingContexts {
public:
    // Never destroyed, since contexts with static storage may outlive it; and not on the heap, whose want
    // would end the process here.
    static LivingContexts& instance() noexcept {
        alignas(LivingContexts) static unsigned char storage[sizeof(LivingContexts)];
        static LivingContexts* const contexts = new (storage) LivingContexts;
        return *contexts;
    }

    void enter(FormatContext* context) noexcept {
        Bucket& bucket = bucketOf(context);
        const std::lock_guard<std::mutex> lock(bucket.mutex);
        context->nextLiving_ = bucket.first;
        bucket.first = context;
    }

    void leave(const FormatContext* context) noexcept {
        Bucket& bucket = bucketOf(context);
        const std::lock_guard<std::mutex> lock(bucket.mutex);
        FormatContext** link = &bucket.first;
        while (*link != context) link = &(*link)->nextLiving_;
        *link = context->nextLiving_;
    }

    bool isInterrupted(const void* address) noexcept {
        Bucket& bucket = bucketOf(address);
        // Held while the flag is read, so that the object cannot go in between.
        const std::lock_guard<std::mutex> lock(bucket.mutex);
        for (const FormatContext* context = bucket.first; context; context = context->nextLiving_) {
            if (context == address) return context->interrupted_.load();
        }
        return false;
    }

private:
    struct Bucket {
        std::mutex mutex;
        FormatContext* first = nullptr;
    };

    Bucket& bucketOf(const void* address) noexcept {
        // The objects are larger than 128 bytes: neighbours get different buckets.
        return buckets_[(reinterpret_cast<std::uintptr_t>(address) >> 7) % buckets_.size()];
    }

    std::array<Bucket, 61> buckets_;
};

namespace {

// The numbers are what is known of the logger's levels, not their names.
logger::MessageOstream logDetail() {
    return logger::log(static_cast<logger::Level>(5));
}

// Beyond this the decoder of Sun raster pictures ends the process, by an assertion (seen in FFmpeg 5.1).
constexpr std::int64_t mostSunRasterPixels = INT_MAX / 12 - 1;

/// Reads ahead until the tracks are described, with decoders that FFmpeg opens by itself.
bool describeTracks(AVFormatContext& context) {
    std::vector<AVDictionary*> options(context.nb_streams);
    for (unsigned int i = 0; i < context.nb_streams; ++i) {
        if (context.streams[i]->codecpar->codec_id == AV_CODEC_ID_SUNRAST) {
            av_dict_set_int(&options[i], "max_pixels", mostSunRasterPixels, 0);
        }
    }
    const int result = avformat_find_stream_info(&context, options.empty() ? nullptr : options.data());
    for (AVDictionary*& option : options) av_dict_free(&option);
    return result >= 0;
}

[[noreturn]] void throwFFmpegError(int error) {
    char text[255] = {};
    av_strerror(error, text, sizeof text);
    throw std::runtime_error(text);
}

}  // namespace

void FormatContext::CloseInput::operator()(AVFormatContext* context) const noexcept {
    avformat_close_input(&context);
}

void FormatContext::FreeCodec::operator()(AVCodecContext* context) const noexcept {
    avcodec_free_context(&context);
}

FormatContext::FormatContext() noexcept {
    LivingContexts::instance().enter(this);
}

FormatContext::FormatContext(const std::string& url) : url_(url) {
    LivingContexts::instance().enter(this);
}

FormatContext::FormatContext(FormatContext&& other) noexcept
    : formatContext_(std::move(other.formatContext_)),
      timeOrigin_(other.timeOrigin_),
      interrupted_(other.interrupted_.load()),
      packetsRead_(other.packetsRead_),
      isRawPacket_(other.isRawPacket_) {
    url_.swap(other.url_);
    decoders_.swap(other.decoders_);
    LivingContexts::instance().enter(this);
}

FormatContext::~FormatContext() {
    try {
        close();
    } catch (...) {
        // Only the logger can throw, when the input is closed already.
    }
    // FFmpeg polls the callback while it closes, so the address lives until then.
    LivingContexts::instance().leave(this);
}

void FormatContext::setUrl(const std::string& url) {
    url_ = url;
}

bool FormatContext::open(const std::string& format, bool findStreamInfo) {
    compat::registerAll();
    AVFormatContext* context = avformat_alloc_context();
    if (!context) throw std::bad_alloc();
    (void)formatContext_.release();  // by contract: what is open is not closed
    // FFmpeg 5 made the record const: `auto` goes with both.
    auto* inputFormat = format.empty() ? nullptr : av_find_input_format(format.c_str());
    interrupted_.store(false);
    if (interruptCallbackEnabled_) {
        context->interrupt_callback.callback = interrupt_cb;
        context->interrupt_callback.opaque = this;
    }
    // On failure FFmpeg frees the context.
    if (avformat_open_input(&context, url_.c_str(), inputFormat, nullptr) != 0) {
        throw std::runtime_error("can't open input file");
    }
    formatContext_.reset(context);
    if (findStreamInfo && !describeTracks(*context)) {
        throw std::runtime_error("can't find stream info");
    }
    for (unsigned int i = 0; i < context->nb_streams; ++i) {
        compat::completeChannelLayout(*context->streams[i]->codecpar);
    }
    if (std::strcmp(context->iformat->name, "rawpacket") == 0) isRawPacket_ = true;
    timeOrigin_ = timeOriginOf(*context, timeOrigin_);
    logDetail() << url_ << " opened, time origin " << timeOrigin_;
    packetsRead_ = 0;
    return true;
}

void FormatContext::close() {
    if (!formatContext_) return;
    decoders_.clear();
    formatContext_.reset();
    logDetail() << url_ << " closed, " << packetsRead_ << " packets read";
}

bool FormatContext::isStreamed() const noexcept {
    return formatContext_ && formatContext_->pb && formatContext_->pb->seekable == 0;
}

unsigned int FormatContext::tracksNumber() const noexcept {
    return formatContext_ ? formatContext_->nb_streams : 0;
}

AVStream* FormatContext::trackAtIndex(unsigned int index) const noexcept {
    return index < tracksNumber() ? formatContext_->streams[index] : nullptr;
}

int FormatContext::channelsAtIndex(unsigned int index) const noexcept {
    const AVStream* track = trackAtIndex(index);
    return track && track->codecpar->codec_type == AVMEDIA_TYPE_AUDIO ? compat::channelCount(*track->codecpar)
                                                                      : 0;
}

std::string FormatContext::channelLayoutAtIndex(unsigned int index) const {
    if (channelsAtIndex(index) == 0) return std::string();
    const std::uint64_t layout = compat::channelLayout(*trackAtIndex(index)->codecpar);
    return layout == 0 ? std::string() : compat::describeChannelLayout(layout);
}

std::string FormatContext::metadata(const std::string& key) const {
    if (!formatContext_) return std::string();
    const AVDictionaryEntry* entry = av_dict_get(formatContext_->metadata, key.c_str(), nullptr, 0);
    return entry && entry->value ? std::string(entry->value) : std::string();
}

void FormatContext::seek(Timestamp t) {
    if (!formatContext_) return;
    const std::int64_t target = t.rescale(Timebase{1, 1000000}).value();
    const auto position = static_cast<std::int64_t>(static_cast<std::uint64_t>(target) -
                                                    static_cast<std::uint64_t>(timeOrigin_));
    const int result = av_seek_frame(formatContext_.get(), -1, position, AVSEEK_FLAG_BACKWARD);
    if (result < 0) throwFFmpegError(result);
    eof_ = false;
}

std::shared_ptr<Packet> FormatContext::readPacket() {
    if (!formatContext_) throw std::runtime_error("Can not read packet from stream that was not opened");
    const PacketPtr packet = makePacket();
    const int result = av_read_frame(formatContext_.get(), packet.get());
    if (result == AVERROR_EOF) {
        eof_ = true;
        return nullptr;
    }
    if (result != 0) throwFFmpegError(result);
    ++packetsRead_;
    if (const AVStream* track = trackAtIndex(static_cast<unsigned int>(packet->stream_index))) {
        rebasePacket(*packet, track->time_base, timeOrigin_);
    }
    if (!isRawPacket_) setKeyFrameFlag(packet.get());
    auto copy = std::make_shared<Packet>(*packet);
    if (!copy->data)
        throw std::bad_alloc();  // the copy has failed; a blank packet would look like an empty one
    return copy;
}

void FormatContext::setKeyFrameFlag(AVPacket* packet) const noexcept {
    if (!packet) return;
    const AVStream* track = trackAtIndex(static_cast<unsigned int>(packet->stream_index));
    if (!track || track->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) return;
    if (track->codecpar->codec_id != AV_CODEC_ID_H264 ||
        (packet->data && isH264KeyFrame(packet->data, packet->size))) {
        packet->flags |= AV_PKT_FLAG_KEY;
    } else {
        packet->flags &= ~AV_PKT_FLAG_KEY;
    }
}

AVCodecContext* FormatContext::getCodecContext(unsigned int streamIndex) {
    const AVStream* track = trackAtIndex(streamIndex);
    if (!track) return nullptr;
    const auto [entry, isNew] = decoders_.try_emplace(static_cast<int>(streamIndex));
    // From here on the null entry stands for a track that cannot be decoded, unless a decoder replaces it.
    if (!isNew) return entry->second.get();

    compat::registerAll();
    const AVCodec* codec = avcodec_find_decoder(track->codecpar->codec_id);
    if (!codec) {
        logger::error("Codec with id %d not found", static_cast<int>(track->codecpar->codec_id));
        return nullptr;
    }
    CodecContextPtr decoder(avcodec_alloc_context3(codec));
    if (decoder && codec->id == AV_CODEC_ID_SUNRAST) decoder->max_pixels = mostSunRasterPixels;
    AVDictionary* options = nullptr;
    // Without threads a decoder returns a frame as soon as it has one.
    av_dict_set(&options, "thread_type", "0", 0);
    const bool opened = decoder && avcodec_parameters_to_context(decoder.get(), track->codecpar) >= 0 &&
                        avcodec_open2(decoder.get(), codec, &options) >= 0;
    av_dict_free(&options);
    if (!opened) {
        logger::error("Could not open codec %s", codec->name);
        return nullptr;
    }
    entry->second = std::move(decoder);
    return entry->second.get();
}

Frame FormatContext::decodePacket(const std::shared_ptr<Packet>& packet) {
    AVCodecContext* decoder = packet ? getCodecContext(packet->streamIndex()) : nullptr;
    if (!decoder) return Frame();
    switch (decoder->codec_type) {
        case AVMEDIA_TYPE_VIDEO:
            return decodeVideo(decoder, *packet);
        case AVMEDIA_TYPE_AUDIO:
            return decodeAudio(decoder, *packet);
        default:
            break;
    }
    const char* type = av_get_media_type_string(decoder->codec_type);
    logger::warning("%s:%d media format \"%s\" is not supported", url_.c_str(), packet->stream_index,
                    type ? type : "unknown");
    return Frame();
}

Frame FormatContext::decodeVideo(AVCodecContext* decoder, const Packet& packet) {
    const FramePtr decoded = makeFrame();
    // A packet without data would tell the decoder that the input has ended, once and for all.
    compat::Decoded result =
        packet.data ? compat::decodeVideo(decoder, &packet, decoded.get()) : compat::Decoded::error;
    if (result == compat::Decoded::frame) {
        try {
            decoded->format = withoutFullRange(static_cast<AVPixelFormat>(decoded->format));
            return Frame(Picture(decoded.get()), Timestamp(decoded->best_effort_timestamp));
        } catch (const std::exception&) {  // a size or format that no picture can have
            result = compat::Decoded::error;
        }
    }
    if (result == compat::Decoded::error) {
        logger::warning("Could not decode video from %s:%d", url_.c_str(), packet.stream_index);
    }
    return Frame();
}

Frame FormatContext::decodeAudio(AVCodecContext* decoder, const Packet& packet) {
    const FramePtr decoded = makeFrame();
    const compat::Decoded result =
        packet.data ? compat::decodeAudio(decoder, &packet, decoded.get()) : compat::Decoded::error;
    if (result == compat::Decoded::frame) {
        try {
            AudioBuffer audio;
            audio.loadAVFrame(decoded.get());
            return Frame(std::move(audio), Timestamp(decoded->best_effort_timestamp));
        } catch (const std::exception&) {  // channels without a layout, for example
        }
    }
    logger::warning("Could not decode audio from %s:%d", url_.c_str(), packet.stream_index);
    return Frame();
}

void FormatContext::moveDecodersFromContext(FormatContext* other) {
    if (!other || other == this || !isOpened() || !other->isOpened()) return;
    if (tracksNumber() != other->tracksNumber()) return;
    for (auto& [index, decoder] : other->decoders_) {
        const AVStream* track = trackAtIndex(static_cast<unsigned int>(index));
        const AVStream* otherTrack = other->trackAtIndex(static_cast<unsigned int>(index));
        if (!track || !otherTrack) continue;
        if (sameDecoding(*track->codecpar, *otherTrack->codecpar)) {
            decoders_[index] = std::move(decoder);
            logDetail() << "Reused decoder for stream " << index << " from " << other->url_ << " in " << url_
                        << " decoding";
        } else {
            logDetail() << "Could not reuse decoder for stream " << index << " from " << other->url_ << " in "
                        << url_ << " decoding, codec parameters differ";
        }
    }
    // The other's entries stay, and are null: it does not open decoders anew for tracks that went on here.
    for (const auto& [index, decoder] : decoders_) other->decoders_[index] = nullptr;
}

void FormatContext::discardTrackAtIndex(unsigned int index, AVDiscard discard) {
    if (!formatContext_) throw std::runtime_error("Can not discard track on stream that was not opened");
    if (index >= formatContext_->nb_streams) throw std::out_of_range("Index in discardTrackAtIndex");
    formatContext_->streams[index]->discard = discard;
}

}  // namespace kvffmpeg

int interrupt_cb(void* opaque) noexcept {
    return !opaque || kvffmpeg::LivingContexts::instance().isInterrupted(opaque) ? 1 : 0;
}
