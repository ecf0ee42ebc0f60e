#include "waveform_picture.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>

namespace kvffmpeg::tool {
namespace {

using Colour = std::array<unsigned char, 3>;

constexpr Colour background{0x12, 0x17, 0x1f};
constexpr Colour halfScale{0x22, 0x2b, 0x37};  // the lines 6 dB below full scale
constexpr Colour middle{0x2f, 0x7d, 0x92};     // shows on the background and on the wave
constexpr Colour wave{0x5c, 0xc8, 0xdf};
constexpr Colour clipped{0xff, 0x4d, 0x4d};

constexpr int lowest = std::numeric_limits<std::int16_t>::min();
constexpr int highest = std::numeric_limits<std::int16_t>::max();

/// Rows of pixels, both ends included.
struct Rows {
    int top = 0;
    int bottom = 0;
};

class Canvas {
public:
    explicit Canvas(Picture& picture) : picture_(picture) {}

    int width() const { return picture_.width(); }
    int height() const { return picture_.height(); }

    /// The row that shows a sample of this value.
    int rowOf(int sample) const {
        constexpr std::int64_t values = std::int64_t{highest} - lowest + 1;
        return static_cast<int>((highest - std::int64_t{sample}) * height() / values);
    }

    void drawColumn(int x, Rows rows, const Colour& colour) {
        for (int y = rows.top; y <= rows.bottom; ++y) {
            unsigned char* row = picture_.getPlanes()[0] + std::ptrdiff_t{y} * picture_.getLinesize()[0];
            std::copy(colour.begin(), colour.end(), row + std::ptrdiff_t{x} * 3);
        }
    }

    void drawLine(int y, const Colour& colour) {
        for (int x = 0; x < width(); ++x) drawColumn(x, {y, y}, colour);
    }

private:
    Picture& picture_;
};

/// The rows of a column, and what it takes to touch its neighbour's, so that a steep wave stays one line.
Rows connected(Rows rows, Rows neighbour) {
    if (rows.top > neighbour.bottom + 1) rows.top = neighbour.bottom + 1;
    if (rows.bottom < neighbour.top - 1) rows.bottom = neighbour.top - 1;
    return rows;
}

void markClipped(Canvas& canvas, int x, SampleRange range) {
    const int size = std::max(1, canvas.height() / 40);
    if (range.greatest == highest) canvas.drawColumn(x, {0, size - 1}, clipped);
    if (range.least == lowest) canvas.drawColumn(x, {canvas.height() - size, canvas.height() - 1}, clipped);
}

}  // namespace

void drawPeaks(Picture& picture, const Peaks& peaks) {
    Canvas canvas(picture);
    for (int y = 0; y < canvas.height(); ++y) canvas.drawLine(y, background);
    for (const int sample : {highest / 2, lowest / 2}) canvas.drawLine(canvas.rowOf(sample), halfScale);
    Rows neighbour;
    for (int x = 0; x < canvas.width(); ++x) {
        const SampleRange range = peaks.rangeOf(x, canvas.width());
        const Rows rows{canvas.rowOf(range.greatest), canvas.rowOf(range.least)};
        canvas.drawColumn(x, x == 0 ? rows : connected(rows, neighbour), wave);
        markClipped(canvas, x, range);
        neighbour = rows;
    }
    canvas.drawLine(canvas.rowOf(0), middle);
}

}  // namespace kvffmpeg::tool
