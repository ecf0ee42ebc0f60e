#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <numeric>
#include <vector>

#include "kernels.h"
#include "kvffmpeg/color.h"
#include "kvffmpeg/draw_utils.h"
#include "kvffmpeg/picture.h"
#include "kvffmpeg/scaler.h"
#include "picture_planes.h"

// The operations of Picture that draw, for which it needs the modules above it.

namespace kvffmpeg {
namespace {

/// The rows of a plane from a position on, as far as they are visible and lie in the buffer.
class PlaneRows {
public:
    PlaneRows() noexcept = default;  ///< None.
    PlaneRows(const Picture& picture, const AVPixFmtDescriptor& format, int plane, std::ptrdiff_t x,
              std::ptrdiff_t y) noexcept
        : plane_(picture.getPlanes()[plane]),
          linesize_(picture.getLinesize()[plane]),
          x_(x),
          y_(y),
          rowBytes_(planes::storedRowBytes(picture.pixelFormat(), plane, picture.width())) {
        if (!plane_) return;
        rows_ = planes::storedRows(format, plane, picture.height());
        size_ = planes::readableEnd(picture, format, plane) - plane_;
    }

    /// Bytes of a row that may be touched; 0 where there is no such row.
    std::ptrdiff_t bytes(std::ptrdiff_t row) const noexcept {
        if (y_ + row >= rows_) return 0;
        return std::max<std::ptrdiff_t>(std::min(rowBytes_ - x_, size_ - offset(row)), 0);
    }
    /// Only for rows that have bytes.
    std::uint8_t* row(std::ptrdiff_t row) const noexcept { return plane_ + offset(row); }

private:
    std::ptrdiff_t offset(std::ptrdiff_t row) const noexcept { return (y_ + row) * linesize_ + x_; }

    std::uint8_t* plane_ = nullptr;
    std::ptrdiff_t linesize_ = 0;
    std::ptrdiff_t x_ = 0;
    std::ptrdiff_t y_ = 0;
    std::ptrdiff_t rowBytes_ = 0;
    std::ptrdiff_t rows_ = 0;
    std::ptrdiff_t size_ = 0;  ///< From the plane's start.
};

bool overlap(const Picture& a, const AVPixFmtDescriptor& formatOfA, const Picture& b,
             const AVPixFmtDescriptor& formatOfB) noexcept {
    constexpr std::less<> before{};  // also for pointers into different blocks
    for (int p = 0; p < planes::planeCount(formatOfA); ++p) {
        const std::uint8_t* planeOfA = a.getPlanes()[p];
        if (!planeOfA) continue;
        for (int q = 0; q < planes::planeCount(formatOfB); ++q) {
            const std::uint8_t* planeOfB = b.getPlanes()[q];
            if (planeOfB && before(planeOfA, planes::readableEnd(b, formatOfB, q)) &&
                before(planeOfB, planes::readableEnd(a, formatOfA, p))) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace

void Picture::compose(const Picture& overlay, point_t position) {
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat_);
    if (empty() || !format) return;
    const point_t start{position.x & ~1, position.y & ~1};
    const rect_t placed{start.x, start.y, overlay.width(), overlay.height()};
    const rect_t target = crop_rect(placed, size_);
    const rect_t visible = get_image_visible_area(placed, size_);
    if (target.w <= 0 || target.h <= 0 || visible.w <= 0 || visible.h <= 0) return;

    const Picture part = overlay.crop(visible);
    if (part.pixelFormat() == pixelFormat_ && pixelFormat_ != AV_PIX_FMT_PAL8 &&
        (format->flags & AV_PIX_FMT_FLAG_ALPHA) == 0) {
        bitblt(part, start);  // not where the visible part begins: left and above of it, parts are cut twice
        return;
    }

    const Picture converted = Scaler().convertToColorspace(part, pixelFormat_, colorRange_);
    if (converted.empty() || !part.getPlanes()[0]) return;

    const AVPixFmtDescriptor& partFormat = *av_pix_fmt_desc_get(part.pixelFormat());
    // Not cut to the visible bytes: in pixels of fewer than four bytes, alphas are found in what follows.
    const std::uint8_t* pixels = part.getPlanes()[0];
    const std::ptrdiff_t pixelBytes = planes::readableEnd(part, partFormat, 0) - pixels;
    const int planeCount = std::min(planes::planeCount(*format), 3);
    PlaneRows targets[3];
    PlaneRows sources[3];
    for (int p = 0; p < planeCount; ++p) {
        const int divisor = p == 0 ? 1 : 2;
        targets[p] = PlaneRows(*this, *format, p, target.x / divisor, target.y / divisor);
        sources[p] = PlaneRows(converted, *format, p, 0, 0);
    }
    // A picture that is drawn on itself: a sample may be the alpha of a later one.
    const kernels::Variant& kernel =
        overlap(*this, *format, part, partFormat) ? kernels::scalar : kernels::active();

    for (std::ptrdiff_t y = 0; y < target.h; ++y) {
        const std::ptrdiff_t offset = y * part.getLinesize()[0];
        const std::ptrdiff_t alphas = (pixelBytes - offset) / 4;
        if (alphas <= 0) break;
        const int drawnPlanes = y % 2 == 0 ? planeCount : 1;
        for (int p = 0; p < drawnPlanes; ++p) {
            const int divisor = p == 0 ? 1 : 2;
            const std::ptrdiff_t row = y / divisor;
            const std::ptrdiff_t samples =
                std::min({std::ptrdiff_t{target.w / divisor}, targets[p].bytes(row), sources[p].bytes(row),
                          alphas / divisor});
            if (samples <= 0) continue;
            kernel.composeRow(targets[p].row(row), sources[p].row(row), pixels + offset, samples, divisor);
        }
    }
}

void Picture::applyLUT(int component, const std::vector<unsigned char>& table) noexcept {
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat_);
    if (empty() || !format || component < 0 || component >= format->nb_components) return;
    const AVComponentDescriptor& samples = format->comp[component];
    const int p = samples.plane;
    if (!planes_[p]) return;

    std::array<unsigned char, 256> map{};  // what the table leaves out stays as it is
    std::iota(map.begin(), map.end(), static_cast<unsigned char>(0));
    std::copy_n(table.begin(), std::min(table.size(), map.size()), map.begin());

    rect_size_t area = planes::componentSize(*format, p, size_);
    std::ptrdiff_t rowBytes = planes::storedRowBytes(pixelFormat_, p, size_.w);
    std::ptrdiff_t width = area.w;
    if (samples.step == 1 && samples.offset == 0 && rowBytes == width && linesizes_[p] == width) {
        width *= area.h;  // without gaps, all rows are one
        rowBytes = width;
        area.h = 1;
    }
    const std::ptrdiff_t size = planes::readableEnd(*this, *format, p) - planes_[p];
    const std::ptrdiff_t first = planes::firstSample(samples);
    const auto mapRow = kernels::active().mapRow;
    for (std::ptrdiff_t y = 0; y < area.h && y * linesizes_[p] < size; ++y) {
        const std::ptrdiff_t rowStart = y * linesizes_[p];
        const std::ptrdiff_t count =
            planes::readableSamples(width, samples, rowBytes, size - rowStart) - first;
        if (count <= 0) continue;
        unsigned char* row = planes_[p] + rowStart + samples.offset + first * samples.step;
        if (samples.step == 1) {
            mapRow(row, count, map.data());
        } else {
            for (std::ptrdiff_t i = 0; i < count; ++i) row[i * samples.step] = map[row[i * samples.step]];
        }
    }
}

void Picture::fillWithRGBA(int r, int g, int b, int a) {
    DrawUtils::fillRectangle(*this, Color(static_cast<unsigned>(r), static_cast<unsigned>(g),
                                          static_cast<unsigned>(b), static_cast<unsigned>(a)));
}

void Picture::fillWithRGB(int r, int g, int b) {
    fillWithRGBA(r, g, b, 255);
}

void Picture::fillWithDebugData() noexcept {
    if (empty() || size_.w <= 0) return;
    const std::size_t size = buffer_->size();
    const auto width = static_cast<std::size_t>(size_.w);
    unsigned char value = 0;
    for (std::size_t start = 0; start < size; start += width) {
        std::memset(buffer_->data() + start, value++, std::min(width, size - start));
    }
}

}  // namespace kvffmpeg
