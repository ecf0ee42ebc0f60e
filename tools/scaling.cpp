#include "scaling.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "arguments.h"
#include "errors.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace kvffmpeg::tool {
namespace {

/// The side that goes with `side` in a picture of the same proportions as `source`.
int otherSide(int side, int sourceSide, int sourceOther) {
    const std::int64_t other = av_rescale(sourceOther, side, sourceSide);
    if (other > longestSide) throw std::runtime_error("--size: The pictures would become too large");
    return std::max(1, static_cast<int>(other));
}

rect_size_t targetSize(rect_size_t wanted, rect_size_t source) {
    if (wanted.w < 0) wanted.w = otherSide(wanted.h, source.h, source.w);
    if (wanted.h < 0) wanted.h = otherSide(wanted.w, source.w, source.h);
    return wanted;
}

}  // namespace

void setAlgorithm(Scaler& scaler, const std::string& name) {
    try {
        scaler.setAlgorithm(name);
    } catch (const std::runtime_error& error) {
        throw UsageError(std::string("--algorithm: ") + error.what());
    }
}

Picture scaled(Scaler& scaler, const Picture& picture, rect_size_t wanted) {
    const rect_size_t size = targetSize(wanted, picture.size());
    Picture result = scaler.scale(picture, size);
    // Not every format can be written by libswscale; palettes cannot.
    if (result.empty()) result = scaler.scale(picture, size, AV_PIX_FMT_RGBA, AVCOL_RANGE_UNSPECIFIED);
    if (result.empty()) throw std::runtime_error("Could not scale " + picture.debugDescription());
    return result;
}

}  // namespace kvffmpeg::tool
