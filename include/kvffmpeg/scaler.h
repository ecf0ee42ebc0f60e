#pragma once

#include <memory>
#include <string>

#include "kvffmpeg/export.h"
#include "kvffmpeg/geometry.h"
#include "kvffmpeg/picture.h"

/// \file
/// Scaling, and conversion between pixel formats and colour ranges.

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace kvffmpeg {

/// Resizes pictures and converts them between pixel formats and colour ranges with libswscale. Keeps its
/// context, so that a stream of equally shaped pictures pays for it once. One thread at a time may use a
/// scaler; neither copied nor moved.
class KVFFMPEG_EXPORT Scaler {
public:
    /// How to interpolate. The values are libswscale's flags.
    enum ScalingAlgorithm : int {
        fast_bilinear = 1,  ///< Bilinear, with less care.
        bilinear = 2,       ///< The default.
        bicubic = 4,        ///< Sharper than bilinear.
        x = 8,              ///< libswscale's "experimental".
        point = 16,         ///< The nearest sample.
        area = 32,          ///< The average of the area; for making smaller.
        bicublin = 64,      ///< Bicubic for luma, bilinear for chroma.
        gauss = 128,        ///< Soft.
        sinc = 256,         ///< Unwindowed: rings.
        lanczos = 512,      ///< Sharp; slower than bicubic.
        spline = 1024,      ///< Natural bicubic spline.
    };

    Scaler();   ///< Bilinear.
    ~Scaler();  ///< Frees libswscale's context.
    Scaler(const Scaler&) = delete;
    Scaler& operator=(const Scaler&) = delete;

    ScalingAlgorithm algorithm() const noexcept { return algorithm_; }  ///< Of the next conversion.
    /// From the next conversion on. Not checked: that the value is one of the enumerators.
    void setAlgorithm(ScalingAlgorithm algorithm) noexcept { algorithm_ = algorithm; }
    /// By the enumerator's exact name, such as "lanczos".
    /// @throws std::runtime_error "Unknown scaling algorithm "%s"" (the name in double quotes) with nothing
    /// changed.
    void setAlgorithm(const std::string& name);

    /// `source` in another size, pixel format and colour range. Where nothing differs the result shares the
    /// source's pixels; otherwise it has pixels of its own in rows without padding. Its colour range is
    /// `range` as given. A range of AVCOL_RANGE_UNSPECIFIED leaves libswscale's own choice in force; a range
    /// that was set stays in the kept context, so that later pictures of unspecified range inherit it.
    ///
    /// libswscale is fastest where the width is a multiple of 32, the height even, and every plane's row a
    /// multiple of 32 bytes (as in 1920x1080, 1280x720 and 640x480); other pictures, unaligned crops and
    /// borrowed buffers are copied once more on their way. The few samples that libswscale does not write,
    /// such as the last column of an odd width in some formats, are zero.
    /// @returns an empty picture for an empty source, an unknown format, a size that is not positive, and a
    /// conversion that libswscale does not offer or finds no memory for.
    /// @throws std::bad_alloc when there is no memory for the result, or the size is too large for a picture.
    Picture scale(const Picture& source, rect_size_t size, AVPixelFormat format, AVColorRange range);
    /// The same with the source's format and colour range.
    Picture scale(const Picture& source, rect_size_t size);
    /// The same with the source's size.
    Picture convertToColorspace(const Picture& source, AVPixelFormat format, AVColorRange range);

private:
    struct State;
    std::unique_ptr<State> state_;
    ScalingAlgorithm algorithm_ = bilinear;
};

}  // namespace kvffmpeg
