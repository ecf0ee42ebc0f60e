#pragma once

#include "kvffmpeg/color.h"
#include "kvffmpeg/export.h"
#include "kvffmpeg/picture.h"

/// \file
/// Chroma keying of pictures.

namespace kvffmpeg {

/// Chroma keying of pictures: what is close to a key colour becomes transparent.
///
/// Only chroma counts, luma does not, and each chroma sample decides for the 2 x 2 pixels that it covers; see
/// `chromakey_yuva420p` for how. `similarity` and `blend` are parts of the range of chroma: up to a distance
/// of `similarity` the alpha is 0, beyond it 255, or, with a `blend` above 0, the alpha rises from there. The
/// key's chroma is that of full-range BT.601, whatever the picture's range; the key's alpha does not count.
class KVFFMPEG_EXPORT ImageUtils {
public:
    ImageUtils() = delete;

    /// Overwrites the alpha of a picture of AV_PIX_FMT_YUVA420P. Where its width or height is odd, the last
    /// column or row keeps its alpha. Allocates nothing.
    /// @throws std::runtime_error, with nothing changed: "chromaKeyingInPlace: Picture must be editable", or
    /// else "chromaKeyingInPlace: Unsupported pixel format".
    static void chromaKeyingInPlace(Picture& picture, const Color& key, float similarity, float blend);
    /// A copy of the picture in AV_PIX_FMT_YUVA420P and its own colour range, keyed. The argument stays as it
    /// was.
    /// @throws std::runtime_error "chromaKeyingInPlace: Picture must be editable" for a picture without
    /// pixels or of a format that cannot be converted; what `Scaler::convertToColorspace` throws.
    static Picture chromaKeying(const Picture& picture, const Color& key, float similarity, float blend);
};

}  // namespace kvffmpeg
