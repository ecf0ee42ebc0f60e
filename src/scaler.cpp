#include "kvffmpeg/scaler.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>
#include <vector>

#include "ffmpeg_compat.h"
#include "picture_planes.h"
#include "simd_planes.h"
#include "text_format.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace kvffmpeg {
namespace {

struct FreeContext {
    void operator()(SwsContext* context) const noexcept { sws_freeContext(context); }
};
using ContextPtr = std::unique_ptr<SwsContext, FreeContext>;

struct AlgorithmName {
    const char* name;
    Scaler::ScalingAlgorithm algorithm;
};

constexpr AlgorithmName algorithmNames[] = {
    {"fast_bilinear", Scaler::fast_bilinear},
    {"bilinear", Scaler::bilinear},
    {"bicubic", Scaler::bicubic},
    {"x", Scaler::x},
    {"point", Scaler::point},
    {"area", Scaler::area},
    {"bicublin", Scaler::bicublin},
    {"gauss", Scaler::gauss},
    {"sinc", Scaler::sinc},
    {"lanczos", Scaler::lanczos},
    {"spline", Scaler::spline},
};

constexpr std::size_t roundUp(std::size_t value, std::size_t powerOfTwo) noexcept {
    return (value + powerOfTwo - 1) & ~(powerOfTwo - 1);
}

/// A picture's planes where libswscale may read and write as it likes: base and linesizes are multiples of
/// 64, rows have room for whole groups of 64 pixels, planes for an even number of rows and `tail` bytes more.
/// Keeps its memory from one picture to the next.
class Scratch {
public:
    /// Lays the planes out, all zero, unless they are laid out like that already.
    /// @throws std::bad_alloc with nothing changed.
    void prepare(AVPixelFormat format, rect_size_t size) {
        if (format == format_ && size == size_) return;
        const PlaneShapes shapes(format, size);
        std::size_t linesizes[4] = {};
        std::size_t offsets[4] = {};
        std::size_t end = 0;
        for (std::size_t p = 0; p < shapes.count; ++p) {
            const int paddedWidth = static_cast<int>(roundUp(static_cast<std::size_t>(size.w), 64));
            linesizes[p] = roundUp(PlaneShapes::bytesOfRow(format, paddedWidth, p), alignment);
            offsets[p] = end;
            end += linesizes[p] * roundUp(shapes.rows[p], 2) + tail;
        }
        const std::size_t paletteOffset = end;
        if (shapes.hasPalette) end += paletteBytes + tail;

        storage_.assign(end + alignment, 0);  // allocates only if this is the largest picture so far
        const auto address = reinterpret_cast<std::uintptr_t>(storage_.data());
        unsigned char* base = storage_.data() + (roundUp(address, alignment) - address);
        for (std::size_t p = 0; p < 4; ++p) {
            planes_[p] = p < shapes.count ? base + offsets[p] : nullptr;
            linesizes_[p] = static_cast<int>(linesizes[p]);
        }
        if (shapes.hasPalette) {
            planes_[1] = base + paletteOffset;
            linesizes_[1] = 4;  // as FFmpeg itself has it
        }
        format_ = format;
        size_ = size;
    }

    void clear() noexcept { std::fill(storage_.begin(), storage_.end(), static_cast<unsigned char>(0)); }

    /// Copies a picture of the format and size that this was prepared for.
    void copyFrom(const Picture& picture, const PlaneShapes& shapes) noexcept {
        copyToPaddedPlanes(picture, shapes, planes_, linesizes_);
    }

    unsigned char* const* planes() const noexcept { return planes_; }
    const int* linesizes() const noexcept { return linesizes_; }

private:
    static constexpr std::size_t alignment = 64;
    static constexpr std::size_t tail = 256;  // a multiple of the alignment, which the next plane keeps

    AVPixelFormat format_ = AV_PIX_FMT_NONE;
    rect_size_t size_;
    std::vector<unsigned char> storage_;
    unsigned char* planes_[4] = {};
    int linesizes_[4] = {};
};

/// Sets the range flags that the two ranges specify. Flags that are right already are left alone, because
/// setting them builds libswscale's tables anew.
void adjustRanges(SwsContext* context, AVColorRange source, AVColorRange target) noexcept {
    if (source == AVCOL_RANGE_UNSPECIFIED && target == AVCOL_RANGE_UNSPECIFIED) return;
    int* inverseTable = nullptr;
    int* table = nullptr;
    int sourceFlag = 0;
    int targetFlag = 0;
    int brightness = 0;
    int contrast = 0;
    int saturation = 0;
    if (sws_getColorspaceDetails(context, &inverseTable, &sourceFlag, &table, &targetFlag, &brightness,
                                 &contrast, &saturation) != 0) {
        return;
    }
    const auto flagOf = [](AVColorRange range, int current) {
        if (range == AVCOL_RANGE_UNSPECIFIED) return current;
        return range == AVCOL_RANGE_JPEG ? 1 : 0;
    };
    const int newSourceFlag = flagOf(source, sourceFlag);
    const int newTargetFlag = flagOf(target, targetFlag);
    if (newSourceFlag == sourceFlag && newTargetFlag == targetFlag) return;
    sws_setColorspaceDetails(context, inverseTable, newSourceFlag, table, newTargetFlag, brightness, contrast,
                             saturation);
}

}  // namespace

struct Scaler::State {
    struct Parameters {
        rect_size_t sourceSize;
        AVPixelFormat sourceFormat = AV_PIX_FMT_NONE;
        rect_size_t targetSize;
        AVPixelFormat targetFormat = AV_PIX_FMT_NONE;
        ScalingAlgorithm algorithm = bilinear;

        bool operator==(const Parameters& other) const noexcept {
            return sourceSize == other.sourceSize && sourceFormat == other.sourceFormat &&
                   targetSize == other.targetSize && targetFormat == other.targetFormat &&
                   algorithm == other.algorithm;
        }
    };

    ContextPtr context;
    Parameters parameters;  ///< That the context is for.
    Scratch source;
    Scratch target;
};

Scaler::Scaler() : state_(std::make_unique<State>()) {}
Scaler::~Scaler() = default;

void Scaler::setAlgorithm(const std::string& name) {
    const auto* entry = std::find_if(std::begin(algorithmNames), std::end(algorithmNames),
                                     [&](const AlgorithmName& known) { return name == known.name; });
    if (entry == std::end(algorithmNames)) {
        throw std::runtime_error(formatText("Unknown scaling algorithm \"%s\"", name));
    }
    setAlgorithm(entry->algorithm);
}

Picture Scaler::scale(const Picture& source, rect_size_t size, AVPixelFormat format, AVColorRange range) {
    const bool sameShape = source.size() == size && source.pixelFormat() == format;
    if (sameShape && source.colorRange() == range) return source;
    if (size.w <= 0 || size.h <= 0) return Picture();
    // libswscale ends the process when it is asked about a format that does not exist.
    if (!hasPixels(source) || !av_pix_fmt_desc_get(format)) return Picture();

    // What the call carries over to a context for other parameters, or for full-range formats, which it knows
    // by other names, depends on the release: newer ones keep the ranges. Those must not depend on what was
    // scaled before.
    const State::Parameters parameters{source.size(), source.pixelFormat(), size, format, algorithm_};
    if (!(parameters == state_->parameters) || planes::isFullRangeFormat(source.pixelFormat()) ||
        planes::isFullRangeFormat(format)) {
        state_->context.reset();
        state_->parameters = parameters;
    }
    // It frees the context that it is given unless it returns that one.
    state_->context.reset(sws_getCachedContext(state_->context.release(), source.width(), source.height(),
                                               source.pixelFormat(), size.w, size.h, format, algorithm_,
                                               nullptr, nullptr, nullptr));
    SwsContext* context = state_->context.get();
    if (!context) return Picture();
    adjustRanges(context, source.colorRange(), range);

    Picture result(size, format, range, 1);
    const PlaneShapes sourceShapes(source.pixelFormat(), source.size());
    const unsigned char* const* sourcePlanes = source.getPlanes();
    const int* sourceLinesizes = source.getLinesize();
    if (!isSafeForSimd(source, sourceShapes)) {
        state_->source.prepare(source.pixelFormat(), source.size());
        state_->source.copyFrom(source, sourceShapes);
        sourcePlanes = state_->source.planes();
        sourceLinesizes = state_->source.linesizes();
    }

    // What libswscale does not write must not be left to chance. If only the range differs, it copies, but
    // some planes not at all (seen in 5.1: the chroma of NV12, floating-point samples, narrow monochrome
    // rows). Otherwise it may leave out the end of odd rows and columns, which always go through the zeroed
    // scratch; and it knows nothing of the palette that FFmpeg before 5 gives to gray pictures.
    if (sameShape) result.fill(source.getPlanes(), source.getLinesize(), size.w, size.h);
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    if ((descriptor->flags & compat::pseudoPalFlag) != 0 && result.getPlanes()[1]) {
        std::memset(result.getPlanes()[1], 0, paletteBytes);
    }

    const PlaneShapes targetShapes(format, size);
    if (isSafeForSimd(result, targetShapes)) {
        const int rows = sws_scale(context, sourcePlanes, sourceLinesizes, 0, source.height(),
                                   result.getPlanes(), result.getLinesize());
        // Only for want of memory: all else that it refuses was refused above.
        if (rows < 0) std::memset(result.buffer()->data(), 0, result.buffer()->size());
    } else {
        Scratch& target = state_->target;
        target.prepare(format, size);
        if (sameShape) {
            target.copyFrom(source, targetShapes);
        } else {
            target.clear();
        }
        sws_scale(context, sourcePlanes, sourceLinesizes, 0, source.height(), target.planes(),
                  target.linesizes());
        result.fill(target.planes(), target.linesizes(), size.w, size.h);
    }
    return result;
}

Picture Scaler::scale(const Picture& source, rect_size_t size) {
    return scale(source, size, source.pixelFormat(), source.colorRange());
}

Picture Scaler::convertToColorspace(const Picture& source, AVPixelFormat format, AVColorRange range) {
    return scale(source, source.size(), format, range);
}

}  // namespace kvffmpeg
