#include "picture_file.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "console.h"
#include "errors.h"
#include "kvffmpeg/format_context.h"
#include "kvffmpeg/utils.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kvffmpeg::tool {
namespace {

/// AV_CODEC_ID_NONE when the ending of `path` stands for no format whose files are what the encoder makes.
AVCodecID pictureCodec(const std::string& path) {
    auto* format = av_guess_format(nullptr, path.c_str(), nullptr);
    if (!format || format->name != std::string("image2")) return AV_CODEC_ID_NONE;
    const AVCodecID codec = av_guess_codec(format, nullptr, path.c_str(), nullptr, AVMEDIA_TYPE_VIDEO);
    return avcodec_find_encoder(codec) ? codec : AV_CODEC_ID_NONE;
}

/// Of a file without a name, in memory.
class Descriptor {
public:
    explicit Descriptor(int value) : value_(value) {
        if (value < 0) throw std::runtime_error("Could not make room for the picture");
    }
    ~Descriptor() { close(value_); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int value() const { return value_; }

private:
    int value_;
};

/// Through memory, because FFmpeg would not let a signal end its writing to a pipe that nobody reads.
void saveToStandardOutput(const Picture& picture, AVCodecID codec) {
    const Descriptor file(memfd_create("picture", MFD_CLOEXEC));
    {
        // Another number for FFmpeg, whose releases differ in whether they close what they wrote to.
        const Descriptor writing(dup(file.value()));
        savePicture(picture, "pipe:" + std::to_string(writing.value()), codec);
    }
    if (lseek(file.value(), 0, SEEK_SET) != 0) throw std::runtime_error("Could not read the picture");
    constexpr std::size_t mostAtOnce = 65536;
    std::array<unsigned char, mostAtOnce> bytes{};
    for (ssize_t count = 0; (count = read(file.value(), bytes.data(), bytes.size())) > 0;) {
        writeOutput(bytes.data(), static_cast<std::size_t>(count));
    }
}

}  // namespace

void requirePictureFormat(const std::string& path) {
    if (pictureCodec(path) == AV_CODEC_ID_NONE) {
        throw UsageError("--output: " + path +
                         " would not be a picture that can be written, such as .png or .jpg");
    }
}

void makeFormatsKnown() {
    try {
        FormatContext("").open();
    } catch (const std::runtime_error&) {  // of course
    }
}

void refuseToOverwrite(const std::string& path, const std::string& name, const std::string& what) {
    std::error_code notThere;
    if (std::filesystem::equivalent(path, name, notThere)) {
        throw std::runtime_error(path + " is " + what + ", and was not overwritten");
    }
}

PictureOutput::PictureOutput(PictureOutputOptions options) : options_(std::move(options)) {
    if (isStandardOutput()) {
        requireNoTerminal();
    } else if (options_.format) {
        throw UsageError("--to: expected --output - with it; the ending of a file's name is its format");
    }
}

std::string PictureOutput::nameOfFormat() const {
    return isStandardOutput() ? "picture." + options_.format.value_or("png") : options_.path;
}

void PictureOutput::requireFormat() const {
    if (!isStandardOutput()) return requirePictureFormat(options_.path);
    if (pictureCodec(nameOfFormat()) == AV_CODEC_ID_NONE) {
        throw UsageError("--to \"" + options_.format.value_or("png") +
                         "\": expected a format of pictures that can be written, such as png or jpg");
    }
}

bool PictureOutput::canHaveAlpha() const {
    switch (pictureCodec(nameOfFormat())) {
        case AV_CODEC_ID_PNG:
        case AV_CODEC_ID_TIFF:
        case AV_CODEC_ID_BMP:
        case AV_CODEC_ID_SGI:
        case AV_CODEC_ID_PAM:
            return true;
        default:
            return false;
    }
}

std::string PictureOutput::formatOption() const {
    return isStandardOutput() ? "--to " + options_.format.value_or("png") : "--output: " + options_.path;
}

void PictureOutput::refuseToOverwrite(const std::string& name, const std::string& what) const {
    if (!isStandardOutput()) tool::refuseToOverwrite(options_.path, name, what);
}

void PictureOutput::save(const Picture& picture) const {
    if (isStandardOutput()) {
        saveToStandardOutput(picture, pictureCodec(nameOfFormat()));
    } else {
        savePicture(picture, options_.path);
    }
}

void PictureOutput::summarize(const std::string& what) const {
    if (isStandardOutput()) return;
    std::cout << printable(options_.path) << ": " << what << '\n';
    flushOutput();
}

}  // namespace kvffmpeg::tool
