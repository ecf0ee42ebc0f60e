#include <memory>

#include "peers.h"

#ifdef KVFFMPEG_WITH_PIXMAN
#include <pixman.h>
#endif
#ifdef KVFFMPEG_WITH_CAIRO
#include <cairo.h>
#endif

namespace drawing {

#ifdef KVFFMPEG_WITH_PIXMAN

Work pixmanOver(const Frames& frames, const Image& overlay) {
    const auto wrap = [](const Image& image, pixman_format_code_t format) {
        // Rows are a multiple of four bytes, and the block starts at a page.
        return std::shared_ptr<pixman_image_t>(
            pixman_image_create_bits(format, image.width(), image.height(),
                                     static_cast<std::uint32_t*>(static_cast<void*>(image.plane(0))),
                                     image.linesize(0)),
            pixman_image_unref);
    };
    std::vector<std::shared_ptr<pixman_image_t>> targets;
    for (const Image& frame : frames) targets.push_back(wrap(frame, PIXMAN_x8r8g8b8));
    return [frames, overlay, targets, from = wrap(overlay, PIXMAN_a8r8g8b8)](std::size_t frame) {
        pixman_image_composite32(PIXMAN_OP_OVER, from.get(), nullptr, targets[frame].get(), 0, 0, 0, 0, 0, 0,
                                 overlay.width(), overlay.height());
    };
}

#else

Work pixmanOver(const Frames&, const Image&) {
    return {};
}

#endif

#ifdef KVFFMPEG_WITH_CAIRO

Work cairoOver(const Frames& frames, const Image& overlay) {
    const auto wrap = [](const Image& image, cairo_format_t format) {
        return std::shared_ptr<cairo_surface_t>(
            cairo_image_surface_create_for_data(image.plane(0), format, image.width(), image.height(),
                                                image.linesize(0)),
            cairo_surface_destroy);
    };
    const auto from = wrap(overlay, CAIRO_FORMAT_ARGB32);
    std::vector<std::shared_ptr<cairo_t>> contexts;
    for (const Image& frame : frames) {
        contexts.emplace_back(cairo_create(wrap(frame, CAIRO_FORMAT_RGB24).get()), cairo_destroy);
        cairo_set_source_surface(contexts.back().get(), from.get(), 0, 0);
        cairo_set_operator(contexts.back().get(), CAIRO_OPERATOR_OVER);
    }
    return [frames, overlay, contexts](std::size_t frame) {
        cairo_paint(contexts[frame].get());
        cairo_surface_flush(cairo_get_target(contexts[frame].get()));
    };
}

#else

Work cairoOver(const Frames&, const Image&) {
    return {};
}

#endif

}  // namespace drawing
