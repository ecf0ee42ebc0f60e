#include "sheet_picture.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>

#include "arguments.h"
#include "errors.h"
#include "kvffmpeg/draw_utils.h"
#include "text_style.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace kvffmpeg::tool {
namespace {

const Color background(0x12, 0x17, 0x1f);

/// The side that goes with `side` in the proportions of `shape`; 1 at least.
int proportional(int side, int shapeSide, int shapeOther) {
    const std::int64_t other = av_rescale(shapeOther, side, shapeSide);
    return static_cast<int>(std::clamp<std::int64_t>(other, 1, std::numeric_limits<int>::max()));
}

TextStyle captionStyle(rect_size_t cell, const std::string& font) {
    constexpr int smallest = 10;  // that can be read
    constexpr int largest = 60;
    TextStyle style;
    style.font = font;
    style.size = std::clamp(cell.h / 10, smallest, largest);
    style.background = background;
    const int beside = style.size / 3;
    style.padding = {beside, 0, beside, 0};
    return style;
}

Picture emptySheet(rect_size_t size) {
    try {
        return Picture(size, AV_PIX_FMT_RGB24);
    } catch (const std::bad_alloc&) {
        throw std::runtime_error("The sheet would become too large");
    }
}

}  // namespace

SheetLayout::SheetLayout(rect_size_t grid, int width, rect_size_t shape)
    : grid_(grid), width_(width), gap_(std::max(1, width / 160)) {
    cell_.w = (width - gap_ * (grid.w + 1)) / grid.w;
    if (cell_.w < 1) {
        throw UsageError("--width " + std::to_string(width) + ": expected more for " +
                         std::to_string(grid.w) + " columns");
    }
    cell_.h = proportional(cell_.w, shape.w, shape.h);
    if (std::int64_t{grid.h} * (std::int64_t{cell_.h} + gap_) + gap_ > longestSide) {
        throw std::runtime_error("The sheet would become too large");
    }
}

rect_size_t SheetLayout::sizeOf(int cells) const noexcept {
    const int columns = std::min(cells, grid_.w);
    const int rows = (cells + grid_.w - 1) / grid_.w;
    // What remains of the width is left beside the cells of full rows.
    const int width = columns == grid_.w ? width_ : columns * (cell_.w + gap_) + gap_;
    return {width, rows * (cell_.h + gap_) + gap_};
}

rect_t SheetLayout::place(int index, int cells) const noexcept {
    const int columns = std::min(cells, grid_.w);
    const int left = (sizeOf(cells).w - columns * (cell_.w + gap_) + gap_) / 2;
    return {left + index % columns * (cell_.w + gap_), gap_ + index / columns * (cell_.h + gap_), cell_.w,
            cell_.h};
}

rect_size_t SheetLayout::fitted(rect_size_t shape) const noexcept {
    const bool isWider = std::int64_t{shape.w} * cell_.h >= std::int64_t{cell_.w} * shape.h;
    if (isWider) return {cell_.w, std::min(cell_.h, proportional(cell_.w, shape.w, shape.h))};
    return {std::min(cell_.w, proportional(cell_.h, shape.h, shape.w)), cell_.h};
}

Picture drawSheet(const SheetLayout& layout, const std::vector<SheetCell>& cells, const std::string& font) {
    const int count = static_cast<int>(cells.size());
    Picture sheet = emptySheet(layout.sizeOf(count));
    DrawUtils::fillRectangle(sheet, background);
    const std::unique_ptr<FreeTypeTextRenderer> renderer = makeRenderer(captionStyle(layout.cell(), font));
    for (int i = 0; i < count; ++i) {
        const SheetCell& cell = cells[static_cast<std::size_t>(i)];
        const rect_t place = layout.place(i, count);
        const rect_size_t shown = cell.picture.size();
        sheet.crop({place.x + (place.w - shown.w) / 2, place.y + (place.h - shown.h) / 2, shown.w, shown.h})
            .fill(cell.picture.getPlanes(), cell.picture.getLinesize(), shown.w, shown.h);
        if (cell.caption.empty()) continue;
        const rect_size_t caption = renderer->getTextSize(cell.caption);
        if (caption.w > place.w || caption.h > place.h) continue;
        renderer->drawTo(sheet, cell.caption, {place.x + place.w - caption.w, place.y + place.h - caption.h});
    }
    return sheet;
}

}  // namespace kvffmpeg::tool
