#include "peers.h"

#ifdef KVFFMPEG_WITH_LIBYUV
#include <libyuv/planar_functions.h>
#endif

namespace drawing {

#ifdef KVFFMPEG_WITH_LIBYUV

Work libyuvI420Blend(const Frames& frames, const Image& overlay) {
    return [frames, from = overlay](std::size_t frame) {
        const Image& to = frames[frame];
        libyuv::I420Blend(from.plane(0), from.linesize(0), from.plane(1), from.linesize(1), from.plane(2),
                          from.linesize(2), to.plane(0), to.linesize(0), to.plane(1), to.linesize(1),
                          to.plane(2), to.linesize(2), from.plane(3), from.linesize(3), to.plane(0),
                          to.linesize(0), to.plane(1), to.linesize(1), to.plane(2), to.linesize(2),
                          to.width(), to.height());
    };
}

Work libyuvArgbBlend(const Frames& frames, const Image& overlay) {
    return [frames, from = overlay](std::size_t frame) {
        const Image& to = frames[frame];
        libyuv::ARGBBlend(from.plane(0), from.linesize(0), to.plane(0), to.linesize(0), to.plane(0),
                          to.linesize(0), to.width(), to.height());
    };
}

Work libyuvI420Rect(const Frames& frames, int y, int u, int v) {
    return [frames, y, u, v](std::size_t frame) {
        const Image& to = frames[frame];
        libyuv::I420Rect(to.plane(0), to.linesize(0), to.plane(1), to.linesize(1), to.plane(2),
                         to.linesize(2), 0, 0, to.width(), to.height(), y, u, v);
    };
}

#else

Work libyuvI420Blend(const Frames&, const Image&) {
    return {};
}
Work libyuvArgbBlend(const Frames&, const Image&) {
    return {};
}
Work libyuvI420Rect(const Frames&, int, int, int) {
    return {};
}

#endif

}  // namespace drawing
