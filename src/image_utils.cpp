#include "kvffmpeg/image_utils.h"

#include <cstdint>
#include <stdexcept>

#include "kvffmpeg/chromakey.h"
#include "kvffmpeg/scaler.h"

namespace kvffmpeg {
namespace {

/// Full-range BT.601, with weights of 1024ths. Components are not limited to 255, but 64 bits hold the sums.
struct KeyChroma {
    explicit KeyChroma(const Color& colour) noexcept {
        const std::int64_t r = colour.red;
        const std::int64_t g = colour.green;
        const std::int64_t b = colour.blue;
        bytes[0] = static_cast<std::uint8_t>(((-173 * r - 339 * g + 512 * b + 511) >> 10) - 128);
        bytes[1] = static_cast<std::uint8_t>(((512 * r - 429 * g - 83 * b + 511) >> 10) - 128);
    }

    std::uint8_t bytes[2] = {};  ///< U, V.
};

}  // namespace

void ImageUtils::chromaKeyingInPlace(Picture& picture, const Color& key, float similarity, float blend) {
    if (!picture.editable()) throw std::runtime_error("chromaKeyingInPlace: Picture must be editable");
    if (picture.pixelFormat() != AV_PIX_FMT_YUVA420P) {
        throw std::runtime_error("chromaKeyingInPlace: Unsupported pixel format");
    }
    if (!picture.getPlanes()[0]) return;  // a buffer without bytes
    chromakey_yuva420p(picture.getPlanes(), picture.getLinesize(), picture.width(), picture.height(),
                       KeyChroma(key).bytes, similarity, blend);
}

Picture ImageUtils::chromaKeying(const Picture& picture, const Color& key, float similarity, float blend) {
    Picture keyed = Scaler().convertToColorspace(picture, AV_PIX_FMT_YUVA420P, picture.colorRange());
    // A picture that needed no conversion came back sharing its pixels. There is no copy without pixels.
    if (!keyed.empty() && keyed.width() > 0 && keyed.height() > 0) keyed.makeEditable();
    chromaKeyingInPlace(keyed, key, similarity, blend);
    return keyed;
}

}  // namespace kvffmpeg
