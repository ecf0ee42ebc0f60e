#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "kvffmpeg/export.h"
#include "kvffmpeg/geometry.h"
#include "kvffmpeg/memory.h"

/// \file
/// Pictures: pixels that copies share.

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

namespace kvffmpeg {

/// A picture: pixel format, size, colour range and up to four planes in one shared `MemBuffer`, laid out as
/// FFmpeg's image functions lay them out.
///
/// Copies are cheap and share the pixels. Before writing, call `makeEditable()`, which gives the picture a
/// buffer of its own (copy on write). One thread at a time may use a picture; pictures that share a buffer
/// may live on different threads as long as nobody writes into it.
class KVFFMPEG_EXPORT Picture {
public:
    /// Empty: 0 x 0, AV_PIX_FMT_NONE, AVCOL_RANGE_UNSPECIFIED, no buffer.
    Picture() noexcept = default;
    /// Allocates a picture whose pixels are not initialised. `align` is the alignment of the linesizes in
    /// bytes, a power of two; 0 or less counts as 1 (rows without padding).
    /// @throws std::bad_alloc for a format or size that FFmpeg refuses (a side of 0, a hardware format, more
    /// than 2 GiB), and when memory runs out.
    Picture(rect_size_t size, AVPixelFormat format, AVColorRange range = AVCOL_RANGE_UNSPECIFIED,
            int align = 1);
    /// A deep copy of the frame's pixels, with rows without padding. The frame must not be null.
    /// @throws std::bad_alloc for a blank frame or a format that FFmpeg cannot lay out in memory;
    /// std::runtime_error "Picture: Frame has no data" when a plane is missing.
    explicit Picture(const AVFrame* frame);

    Picture(const Picture&) = default;             ///< Shares the pixels.
    Picture& operator=(const Picture&) = default;  ///< Shares the pixels.
    Picture(Picture&& other) noexcept;             ///< Leaves `other` empty.
    Picture& operator=(Picture&& other) noexcept;  ///< Leaves `other` empty.
    ~Picture() = default;

    int width() const noexcept { return size_.w; }                       ///< In pixels.
    int height() const noexcept { return size_.h; }                      ///< In pixels.
    rect_size_t size() const noexcept { return size_; }                  ///< In pixels.
    AVPixelFormat pixelFormat() const noexcept { return pixelFormat_; }  ///< How the planes hold the pixels.
    /// AVCOL_RANGE_JPEG: full; AVCOL_RANGE_MPEG: limited (16 ... 235); else not known.
    AVColorRange colorRange() const noexcept { return colorRange_; }
    int alignment() const noexcept { return alignment_; }  ///< Of the linesizes, in bytes; 1 by default.
    /// The storage, shared with copies, crops and exported frames; null when empty.
    const std::shared_ptr<MemBuffer>& buffer() const noexcept { return buffer_; }

    /// Takes `buffer` for the pixels and lays the planes out in it. A null `buffer` makes the picture empty;
    /// size, format and alignment stay. Not checked: that the buffer holds at least `getVideoBufferSize()`
    /// bytes.
    void setData(std::shared_ptr<MemBuffer> buffer) noexcept;
    bool empty() const noexcept { return buffer_ == nullptr; }  ///< True without a buffer.
    /// True when nothing shares this picture's buffer: no other picture and no AVFrame.
    bool editable() const noexcept { return buffer_ != nullptr && buffer_.use_count() == 1; }
    /// Gives the picture a buffer of its own unless it has one already, with the same pixels and without what
    /// a crop hides. Pixels are copied once at most.
    /// @throws std::bad_alloc with nothing changed; also for an empty picture without a size or format.
    void makeEditable();
    /// The bytes that this format, size and alignment need. What FFmpeg refuses arrives as its negative error
    /// code widened to 64 bits, that is as a huge number.
    std::size_t getVideoBufferSize() const noexcept;

    /// The four plane pointers; null where the format has no such plane, and in an empty picture.
    unsigned char* (&getPlanes() noexcept)[4] { return planes_; }
    /// The same; the samples can be written to all the same.
    unsigned char* const (&getPlanes() const noexcept)[4] { return planes_; }
    /// The four linesizes: bytes from one row of a plane to the next.
    const int (&getLinesize() const noexcept)[4] { return linesizes_; }
    /// True when the format stores alpha; palettes do.
    bool hasAlpha() const noexcept;

    /// Copies min(buffer size, `count`) bytes to the *start of the buffer*, also in a crop. Does nothing in
    /// an empty picture. Like the other `fill` it writes into a shared buffer without asking.
    void fill(const unsigned char* bytes, std::size_t count) noexcept;
    /// Copies `width` x `height` pixels of this picture's format from the given planes, top-left to top-left.
    /// Rows and columns beyond this picture are left out. Does nothing in an empty picture. Not checked: that
    /// the given planes hold that many pixels; a plane that is null is left out.
    void fill(const unsigned char* const* planes, const int* linesizes, int width, int height) noexcept;

    /// A view of the part `rect`, clipped to this picture; no pixel is copied, and the view is not editable
    /// while this picture lives. For formats with subsampled chroma the rectangle is rounded down: x and w by
    /// the *vertical* subsampling, y and h by the *horizontal* one. Plane 3, the alpha of YUVA formats, stays
    /// where it was. A view that would end beyond the buffer, which happens in formats that pack several
    /// pixels into a step (yuyv422, monochrome) and, at odd x, where 4:2:2 chroma takes two bytes (nv16,
    /// yuv422p10), is empty. A picture without a known format is returned as it
    /// is.
    Picture crop(rect_t rect) const;
    /// Copies all of `source`, which has this picture's format, here; its top-left corner lands on `position`
    /// with one bit cleared: x & ~(1 << log2_chroma_w), y & ~(1 << log2_chroma_h), so odd positions become
    /// even in formats without subsampling. Plane 3 is copied to the top-left corner whatever the position.
    /// Rows and columns that do not fit are left out. Writes into a shared buffer without asking.
    void bitblt(const Picture& source, point_t position) noexcept;

    /// @name Drawing
    /// These draw into the picture's own memory, also if that is shared: call `makeEditable()` first. Only
    /// the two solid fills ask.
    /// @{

    /// Draws `overlay` here by its alpha: D = (S * a + D * (255 - a)) / 255, rounded down. For a picture of
    /// planar 4:2:0 with 8 bits and an overlay of four bytes a pixel with alpha last (AV_PIX_FMT_RGBA,
    /// AV_PIX_FMT_BGRA), which is converted to this picture's format and colour range by a `Scaler`. The top
    /// left pixel of each 2 x 2 decides for chroma; where the overlay's part that is visible has an odd
    /// width, its last column keeps its chroma. `position` is rounded down to even numbers, and what lies
    /// outside is left out. The alpha of this picture stays as it is.
    ///
    /// An overlay of this picture's own format is copied instead if that has no alpha: `crop` to the visible
    /// part, then `bitblt` to the even position. Both round once more (4:2:0 that is meant for (5, 7) lands
    /// at (4, 4), and odd sizes lose their last row and column), and left of or above this picture, where the
    /// position is that of the hidden corner, what is hidden is left out twice.
    ///
    /// Other pairs of formats give wrong pictures, and pairs that cannot be converted change nothing;
    /// `DrawUtils::compose` knows more of them. Nothing outside either picture is touched. `overlay` may
    /// share this picture's memory.
    /// @throws what `Scaler::convertToColorspace` throws, with nothing changed.
    void compose(const Picture& overlay, point_t position);
    /// Replaces each sample v of a component (0 is red or luma, as FFmpeg counts them) by table[v]. Entries
    /// beyond 256 are not used; samples that a shorter table has no entry for stay, as does everything when
    /// there is no such component. Of samples with more than one byte only the first is replaced, chroma
    /// sizes are rounded down, and in palette pictures the indices are meant. Formats with several samples in
    /// a byte (monochrome, rgb4) are no use here: whole bytes are replaced.
    void applyLUT(int component, const std::vector<unsigned char>& table) noexcept;
    /// `DrawUtils::fillRectangle` for the whole picture. Each component is 0 ... 255 (not checked).
    /// @throws what that throws, as for a picture that is not `editable()`.
    void fillWithRGBA(int r, int g, int b, int a);
    /// `fillWithRGBA` with an alpha of 255.
    void fillWithRGB(int r, int g, int b);
    /// A test pattern for the *whole buffer*, also in a crop: byte i becomes (i / width) modulo 256, whatever
    /// the format. Does nothing without a buffer or width, or if the buffer is borrowed, as its size is not
    /// known then.
    void fillWithDebugData() noexcept;
    /// @}

    /// Exports without copying: fills `buf[0]` (overwritten, not released), the planes, linesizes, size,
    /// format and colour range of a blank frame. The frame keeps the pixels alive, and this picture is not
    /// `editable()` until the frame is released. An empty picture leaves the frame alone; if memory runs out
    /// in FFmpeg, `buf[0]` is null and nothing else is set.
    /// @throws std::bad_alloc with the frame unchanged.
    void fillAVFrame(AVFrame* frame) const;

    /// Equal size, format and pixels. Compares the first byte of every sample, with chroma sizes rounded
    /// down; colour range, alignment, row padding and palettes do not count. Empty pictures are equal to
    /// none.
    bool operator==(const Picture& other) const noexcept;
    /// The opposite: true for empty pictures.
    bool operator!=(const Picture& other) const noexcept { return !(*this == other); }

    /// "(empty picture)", or size, format and range: "1280x720, yuv420p (tv)".
    std::string debugDescription() const;

private:
    void swap(Picture& other) noexcept;

    rect_size_t size_;
    AVPixelFormat pixelFormat_ = AV_PIX_FMT_NONE;
    AVColorRange colorRange_ = AVCOL_RANGE_UNSPECIFIED;
    std::shared_ptr<MemBuffer> buffer_;
    unsigned char* planes_[4] = {};
    int linesizes_[4] = {};
    int alignment_ = 1;
};

/// Writes `debugDescription()`.
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, const Picture& picture);

}  // namespace kvffmpeg
