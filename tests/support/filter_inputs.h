#pragma once

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/media.h"

namespace kvffmpeg::test {

/// The text of the std::runtime_error that `action` throws.
template <typename Action>
std::string runtimeErrorOf(Action action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(no std::runtime_error)";
}

inline Picture picture(rect_size_t size = {64, 48}, AVPixelFormat format = AV_PIX_FMT_YUV420P,
                       unsigned seed = 1) {
    return randomPicture(size, format, AVCOL_RANGE_UNSPECIFIED, 1, seed);
}

/// The picture's left and right sides swapped. For formats with one byte per sample and a plane for each.
inline std::vector<std::uint8_t> mirrored(const Picture& source) {
    Picture copy = source;
    copy.makeEditable();
    const auto mirrorPlane = [&](int plane, int width, int height) {
        for (int y = 0; y < height; ++y) {
            unsigned char* row = copy.getPlanes()[plane] + y * copy.getLinesize()[plane];
            std::reverse(row, row + width);
        }
    };
    const bool half =
        source.pixelFormat() == AV_PIX_FMT_YUV420P || source.pixelFormat() == AV_PIX_FMT_YUVJ420P;
    mirrorPlane(0, source.width(), source.height());
    for (int plane : {1, 2}) {
        mirrorPlane(plane, half ? source.width() / 2 : source.width(),
                    half ? source.height() / 2 : source.height());
    }
    return visibleBytes(copy);
}

}  // namespace kvffmpeg::test
