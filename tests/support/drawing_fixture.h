#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvffmpeg/color.h"
#include "kvffmpeg/draw_utils.h"
#include "kvffmpeg/picture.h"
#include "kvffmpeg/scaler.h"
#include "kvffmpeg/utils.h"
#include "support/media.h"
#include "support/tool_fixture.h"

namespace kvffmpeg::test {

/// The picture of a file in 8-bit rgba.
inline Picture load(const std::string& path) {
    return Scaler().convertToColorspace(loadPicture(path), AV_PIX_FMT_RGBA, AVCOL_RANGE_UNSPECIFIED);
}

inline Color pixel(const Picture& rgba, int x, int y) {
    if (x >= rgba.width() || y >= rgba.height()) throw std::runtime_error("There is no such pixel");
    const unsigned char* bytes = rgba.getPlanes()[0] + std::ptrdiff_t{y} * rgba.getLinesize()[0] + 4 * x;
    return {bytes[0], bytes[1], bytes[2], bytes[3]};
}

/// A picture of one colour.
inline Picture plain(rect_size_t size, const Color& color) {
    Picture picture(size, AV_PIX_FMT_RGBA);
    DrawUtils::fillRectangle(picture, color);
    return picture;
}

/// For tests of what the tool draws on frames.
class DrawingFixture : public ToolFixture {
protected:
    /// A PNG file.
    std::string still(const std::string& name, const Picture& picture) const {
        savePicture(picture, file(name));
        return file(name);
    }
    std::string still(const std::string& name, rect_size_t size, const Color& color) const {
        return still(name, plain(size, color));
    }

    /// Two pictures of one colour in yuv420p, each sample as it is here.
    /// Odd sizes are cut from an even one: to subsample chroma at an odd edge FFmpeg looks beyond it.
    std::string video(rect_size_t size, const std::string& color) const {
        const std::string path = file("video.y4m");
        const auto text = [](int width, int height, const char* between) {
            return std::to_string(width) + between + std::to_string(height);
        };
        runFFmpeg(
            "-f lavfi -i color=" + color + ":size=" + text(size.w + size.w % 2, size.h + size.h % 2, "x") +
            ":rate=10:duration=0.2,format=rgb24,scale,format=yuv420p,crop=" + text(size.w, size.h, ":") +
            ":0:0:exact=1 -f yuv4mpegpipe " + path);
        return path;
    }

    /// Runs the tool on `input`; returns the first picture that it saved, in rgba.
    Picture draw(const std::string& input, const std::vector<std::string>& options) const {
        std::vector<std::string> arguments{"frames", "-o", file("out%d.png"), "--count", "1"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.push_back(input);
        const Result result = run(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        return load(file("out1.png"));
    }
};

}  // namespace kvffmpeg::test
