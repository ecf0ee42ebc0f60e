#include "picture_file.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "errors.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kvffmpeg::tool {

void requirePictureFormat(const std::string& path) {
    auto* format = av_guess_format(nullptr, path.c_str(), nullptr);
    const bool isPicture =
        format && format->name == std::string("image2") &&
        avcodec_find_encoder(av_guess_codec(format, nullptr, path.c_str(), nullptr, AVMEDIA_TYPE_VIDEO));
    if (!isPicture) {
        throw UsageError("--output: " + path +
                         " would not be a picture that can be written, such as .png or .jpg");
    }
}

bool canHaveAlpha(const std::string& path) {
    auto* format = av_guess_format(nullptr, path.c_str(), nullptr);
    if (!format) return false;
    switch (av_guess_codec(format, nullptr, path.c_str(), nullptr, AVMEDIA_TYPE_VIDEO)) {
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

void refuseToOverwrite(const std::string& path, const std::string& name, const std::string& what) {
    std::error_code notThere;
    if (std::filesystem::equivalent(path, name, notThere)) {
        throw std::runtime_error(path + " is " + what + ", and was not overwritten");
    }
}

}  // namespace kvffmpeg::tool
