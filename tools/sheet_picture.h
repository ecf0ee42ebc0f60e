#pragma once

#include <string>
#include <vector>

#include "kvffmpeg/geometry.h"
#include "kvffmpeg/picture.h"

namespace kvffmpeg::tool {

/// What is shown of one frame.
struct SheetCell {
    Picture picture;      ///< RGB24, not larger than a cell of the sheet.
    std::string caption;  ///< May be empty.
};

/// Where the pictures of a contact sheet are: in rows from the top left, with gaps between them and around
/// them, so that full rows are as wide as the sheet was asked to be.
class SheetLayout {
public:
    /// For pictures of the proportions of `shape`.
    /// @throws UsageError when the sheet is too narrow for its columns; std::runtime_error when it would be
    /// higher than a picture may be.
    SheetLayout(rect_size_t grid, int width, rect_size_t shape);

    rect_size_t cell() const noexcept { return cell_; }
    /// The size of a sheet of this many cells: it has no more columns and rows than they need.
    rect_size_t sizeOf(int cells) const noexcept;
    /// The place of a cell in a sheet of `cells` cells.
    rect_t place(int index, int cells) const noexcept;
    /// The largest size of the proportions of `shape` that fits into a cell.
    rect_size_t fitted(rect_size_t shape) const noexcept;

private:
    rect_size_t grid_;
    int width_;
    int gap_;
    rect_size_t cell_;
};

/// Draws the cells, one at least, with their captions in the lower right corner, written with this font; a
/// caption that is larger than a cell is left out.
/// @throws std::runtime_error for a font that cannot be used, and for a sheet that is too large.
Picture drawSheet(const SheetLayout& layout, const std::vector<SheetCell>& cells, const std::string& font);

}  // namespace kvffmpeg::tool
