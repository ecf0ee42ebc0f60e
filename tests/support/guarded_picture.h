#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "support/guard_page.h"
#include "support/media.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg::test {

/// A picture with each plane in memory of its own that begins right behind, or ends right before, a page that
/// must not be touched. Rows have no padding.
class GuardedPicture {
public:
    /// A copy of `source`. @throws std::bad_alloc.
    GuardedPicture(const Picture& source, GuardedEnd end)
        : picture_(source.size(), source.pixelFormat(), source.colorRange()) {
        const AVPixFmtDescriptor& format = *av_pix_fmt_desc_get(source.pixelFormat());
        unsigned char* guarded[4] = {};
        for (int p = 0; p < 4; ++p) {
            if (!picture_.getPlanes()[p]) continue;
            const int shift = p == 1 || p == 2 ? format.log2_chroma_h : 0;
            const auto rows = static_cast<std::size_t>(-(-source.height() >> shift));
            const int rowBytes = av_image_get_linesize(source.pixelFormat(), source.width(), p);
            const bool isPalette = p == 1 && av_pix_fmt_count_planes(source.pixelFormat()) == 1;
            guarded[p] = allocate(isPalette ? paletteBytes : rows * static_cast<std::size_t>(rowBytes), end);
        }
        picture_.setData(std::make_shared<MemBuffer>(0, guarded[0]));
        for (int p = 0; p < 4; ++p) picture_.getPlanes()[p] = guarded[p];
        picture_.fill(source.getPlanes(), source.getLinesize(), source.width(), source.height());
    }
    ~GuardedPicture() {
        for (void* block : blocks_) freeGuarded(block);
    }
    GuardedPicture(const GuardedPicture&) = delete;
    GuardedPicture& operator=(const GuardedPicture&) = delete;

    Picture& operator*() noexcept { return picture_; }
    Picture* operator->() noexcept { return &picture_; }

private:
    static constexpr std::size_t paletteBytes = 1024;
    static constexpr std::size_t distance = 16;  // of blocks from the page before them

    unsigned char* allocate(std::size_t size, GuardedEnd end) {
        const std::size_t rounded = (size + distance - 1) / distance * distance;
        auto* block = static_cast<unsigned char*>(allocateGuarded(rounded, end, 0xCC));
        blocks_.push_back(block);
        return end == GuardedEnd::front ? block - distance : block + (rounded - size);
    }

    Picture picture_;
    std::vector<void*> blocks_;
};

/// Every format of which pictures can be made.
inline std::vector<AVPixelFormat> pictureFormats() {
    std::vector<AVPixelFormat> formats;
    for (const AVPixFmtDescriptor* d = av_pix_fmt_desc_next(nullptr); d; d = av_pix_fmt_desc_next(d)) {
        const AVPixelFormat format = av_pix_fmt_desc_get_id(d);
        const bool inMemory = (d->flags & AV_PIX_FMT_FLAG_HWACCEL) == 0 && d->nb_components > 0;
        if (inMemory && av_image_get_buffer_size(format, 16, 16, 1) > 0) formats.push_back(format);
    }
    return formats;
}

}  // namespace kvffmpeg::test
