// A line of 60 glyphs at 48 pixels on 1920x1080, drawn by the library, by libavfilter's drawtext and by
// cairo, in turns in one process. Prints the median processor time of each and how the library's compares.

#include <ft2build.h>
#include <sched.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <functional>
#include <iomanip>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ffmpeg_compat.h"
#include "ffmpeg_ptr.h"
#include "kernels.h"
#include "kvffmpeg/kvffmpeg.h"

#include FT_FREETYPE_H

#ifdef KVFFMPEG_WITH_CAIRO_FT
#include <cairo-ft.h>
#include <cairo.h>
#endif

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
}

namespace {

using kvffmpeg::FreeTypeTextRenderer;
using kvffmpeg::Picture;

constexpr kvffmpeg::rect_size_t size{1920, 1080};
constexpr int fontSize = 48;
constexpr kvffmpeg::point_t place{60, 501};
constexpr int rounds = 400;

// The same letters in two orders, so that what changes is the layout and not the glyphs.
const std::string text = "Sphinx of black quartz judge my vow 0123456789 and then some";
const std::string otherText = "Sphinx of black quartz judge my vow 9876543210 and then some";

double processorMicroseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

void check(bool isGood, const char* what) {
    if (!isGood) throw std::runtime_error(what);
}

Picture background(AVPixelFormat format) {
    Picture picture(size, format, AVCOL_RANGE_UNSPECIFIED, 32);
    for (std::size_t i = 0; i < picture.buffer()->size(); ++i) {
        picture.buffer()->data()[i] = static_cast<std::uint8_t>(40 + i % 97);
    }
    return picture;
}

/// Draws one frame again and again, in place.
class DrawTextGraph {
public:
    DrawTextGraph(const std::string& font, const Picture& picture, int y) : picture_(picture) {
        kvffmpeg::compat::registerAll();
        graph_.reset(avfilter_graph_alloc());
        check(graph_ != nullptr, "no graph");
        graph_->nb_threads = 1;
        const std::string arguments = "video_size=1920x1080:time_base=1/1:pixel_aspect=1/1:pix_fmt=" +
                                      std::string(av_get_pix_fmt_name(picture.pixelFormat()));
        const std::string options = "fontfile='" + font + "':expansion=none:text='" + text +
                                    "':fontsize=48:fontcolor=0xFFE1FF:x=60:y=" + std::to_string(y);
        AVFilterContext* drawing = make("drawtext", options);
        source_ = make("buffer", arguments);
        sink_ = make("buffersink", {});
        check(avfilter_link(source_, 0, drawing, 0) == 0 && avfilter_link(drawing, 0, sink_, 0) == 0 &&
                  avfilter_graph_config(graph_.get(), nullptr) >= 0,
              "libavfilter cannot draw text");
    }

    void draw() {
        kvffmpeg::FramePtr frame = kvffmpeg::makeFrame();
        picture_.fillAVFrame(frame.get());
        // The picture is ours, but the filter may write into the frame only if it seems to be the frame's
        // own.
        av_buffer_unref(&frame->buf[0]);
        frame->buf[0] = kvffmpeg::compat::createBuffer(
            picture_.buffer()->data(), picture_.buffer()->size(), [](void*, std::uint8_t*) {}, nullptr);
        frame->pts = time_++;
        const std::uint8_t* before = frame->data[0];
        check(av_buffersrc_add_frame_flags(source_, frame.get(), 0) >= 0, "no frame in");
        kvffmpeg::FramePtr drawn = kvffmpeg::makeFrame();
        check(av_buffersink_get_frame(sink_, drawn.get()) >= 0, "no frame out");
        check(drawn->data[0] == before, "the filter copied the frame");
    }

private:
    struct FreeGraph {
        void operator()(AVFilterGraph* graph) const noexcept { avfilter_graph_free(&graph); }
    };

    AVFilterContext* make(const char* filter, const std::string& options) {
        AVFilterContext* made = nullptr;
        check(avfilter_graph_create_filter(&made, avfilter_get_by_name(filter), filter, options.c_str(),
                                           nullptr, graph_.get()) >= 0,
              "a filter is missing");
        return made;
    }

    Picture picture_;
    std::unique_ptr<AVFilterGraph, FreeGraph> graph_;
    AVFilterContext* source_ = nullptr;
    AVFilterContext* sink_ = nullptr;
    std::int64_t time_ = 0;
};

/// The first row that is not as in `before`.
int firstChangedRow(const Picture& before, const Picture& after) {
    for (int y = 0; y < size.h; ++y) {
        const std::ptrdiff_t offset = std::ptrdiff_t{y} * before.getLinesize()[0];
        if (std::memcmp(before.getPlanes()[0] + offset, after.getPlanes()[0] + offset,
                        static_cast<std::size_t>(before.getLinesize()[0])) != 0) {
            return y;
        }
    }
    throw std::runtime_error("nothing was drawn");
}

Picture copyOf(const Picture& picture) {
    Picture copy = picture;
    copy.makeEditable();
    return copy;
}

/// Where drawtext has to draw for the library's picture: it takes the top of the highest glyph for y.
int matchingRow(const std::string& font, FreeTypeTextRenderer& renderer, AVPixelFormat format) {
    const Picture before = background(format);
    Picture ours = copyOf(before);
    Picture theirs = copyOf(before);
    renderer.drawTo(ours, text, place);
    DrawTextGraph(font, theirs, place.y).draw();
    return place.y + firstChangedRow(before, ours) - firstChangedRow(before, theirs);
}

bool drawsTheSame(const std::string& font, FreeTypeTextRenderer& renderer, AVPixelFormat format, int row) {
    Picture ours = copyOf(background(format));
    Picture theirs = copyOf(ours);
    renderer.drawTo(ours, text, place);
    DrawTextGraph(font, theirs, row).draw();
    return ours == theirs;
}

#ifdef KVFFMPEG_WITH_CAIRO_FT
/// Pixels of 32 bits, alpha premultiplied, which is what cairo draws on.
class CairoLine {
public:
    explicit CairoLine(const std::string& font) {
        check(FT_Init_FreeType(&library_) == 0 && FT_New_Face(library_, font.c_str(), 0, &face_) == 0,
              "no font for cairo");
        surface_ = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, size.w, size.h);
        context_ = cairo_create(surface_);
        cairo_set_source_rgb(context_, 0.3, 0.5, 0.7);
        cairo_paint(context_);
        fontFace_ = cairo_ft_font_face_create_for_ft_face(face_, 0);
        cairo_set_font_face(context_, fontFace_);
        cairo_set_font_size(context_, fontSize);
        cairo_font_options_t* options = cairo_font_options_create();
        cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
        cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_ON);
        cairo_set_font_options(context_, options);
        cairo_font_options_destroy(options);
        cairo_set_source_rgb(context_, 1, 225 / 255.0, 1);
        check(cairo_scaled_font_text_to_glyphs(cairo_get_scaled_font(context_), place.x, place.y + 45,
                                               text.c_str(), -1, &glyphs_, &count_, nullptr, nullptr,
                                               nullptr) == CAIRO_STATUS_SUCCESS,
              "cairo cannot lay the text out");
    }
    ~CairoLine() {
        cairo_glyph_free(glyphs_);
        cairo_destroy(context_);
        cairo_surface_destroy(surface_);
        cairo_font_face_destroy(fontFace_);
        cairo_debug_reset_static_data();  // its cache of fonts still refers to the face
        FT_Done_Face(face_);
        FT_Done_FreeType(library_);
    }
    CairoLine(const CairoLine&) = delete;
    CairoLine& operator=(const CairoLine&) = delete;

    void draw() const {
        cairo_show_glyphs(context_, glyphs_, count_);
        cairo_surface_flush(surface_);
    }

private:
    FT_Library library_ = nullptr;
    FT_Face face_ = nullptr;
    cairo_surface_t* surface_ = nullptr;
    cairo_t* context_ = nullptr;
    cairo_font_face_t* fontFace_ = nullptr;
    cairo_glyph_t* glyphs_ = nullptr;
    int count_ = 0;
};
#endif

struct Contender {
    std::string name;
    std::function<void()> draw;
    std::vector<double> times = {};

    double median() {
        const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
        std::nth_element(times.begin(), middle, times.end());
        return *middle;
    }
};

/// They take turns; each runs once unmeasured first, so that the caches are as it leaves them itself.
void measure(std::vector<Contender>& contenders) {
    for (int round = 0; round < rounds; ++round) {
        for (Contender& contender : contenders) {
            contender.draw();
            const double start = processorMicroseconds();
            contender.draw();
            contender.times.push_back(processorMicroseconds() - start);
        }
    }
}

void printLine(const std::string& name, double time, double ours) {
    std::cout << "  " << std::left << std::setw(24) << name << std::right << std::fixed
              << std::setprecision(1) << std::setw(9) << time << " us   library/this " << std::setprecision(4)
              << ours / time << '\n';
}

/// The library first, then its rivals.
void contest(const std::string& title, std::vector<Contender> contenders) {
    measure(contenders);
    std::cout << title << '\n';
    const double prepared = contenders[0].median();
    const double anew = contenders[1].median();
    printLine(contenders[0].name, prepared, prepared);
    printLine(contenders[1].name, anew, anew);
    for (std::size_t i = 2; i < contenders.size(); ++i) {
        printLine(contenders[i].name, contenders[i].median(), prepared);
        printLine("  with a new text", contenders[i].median(), anew);
    }
}

std::vector<Contender> libraryOn(FreeTypeTextRenderer& renderer, Picture& picture) {
    return {{"library, prepared", [&] { renderer.drawTo(picture, text, place); }},
            {"library, new text", [&, isOther = false]() mutable {
                 isOther = !isOther;
                 renderer.drawTo(picture, isOther ? otherText : text, place);
             }}};
}

void run(const std::string& font) {
    FreeTypeTextRenderer prepared(font, fontSize);
    prepared.setBackgroundColor({0, 0, 0, 0});
    std::cout << "kernels: " << kvffmpeg::kernels::active().name << ", font: " << font << '\n';

    for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA}) {
        const int row = matchingRow(font, prepared, format);
        std::cout << (drawsTheSame(font, prepared, format, row) ? "" : "NOT ") << "the bytes of drawtext\n";

        // A renderer for each, as the two would undo each other's layout.
        FreeTypeTextRenderer changing(font, fontSize);
        changing.setBackgroundColor({0, 0, 0, 0});
        Picture ours = background(format);
        Picture theirs = copyOf(ours);
        DrawTextGraph graph(font, theirs, row);
        std::vector<Contender> contenders{libraryOn(prepared, ours)[0], libraryOn(changing, ours)[1]};
        contenders.push_back({"drawtext", [&] { graph.draw(); }});
#ifdef KVFFMPEG_WITH_CAIRO_FT
        std::unique_ptr<CairoLine> cairo;
        if (format == AV_PIX_FMT_RGBA) {
            cairo = std::make_unique<CairoLine>(font);
            contenders.push_back({"cairo_show_glyphs", [&] { cairo->draw(); }});
        }
#endif
        contest(av_get_pix_fmt_name(format), std::move(contenders));
    }
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 2 || count > 3) {
        std::cerr << "usage: kvffmpeg_text_benchmarks FONT-FILE [VARIANT]\n"
                     "  VARIANT  of the kernels: scalar, avx2, avx512, avx512vbmi; the CPU's best without\n";
        return 2;
    }
    try {
        if (count == 3) {
            const kvffmpeg::kernels::Variant* chosen = nullptr;
            for (const kvffmpeg::kernels::Variant* variant : kvffmpeg::kernels::all()) {
                if (arguments[2] == std::string(variant->name)) chosen = variant;
            }
            check(chosen && chosen->supported(), "no such variant here");
            kvffmpeg::kernels::setActive(chosen);
        }
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CPU_SET(static_cast<unsigned>(sched_getcpu()), &cpus);
        sched_setaffinity(0, sizeof cpus, &cpus);
        run(arguments[1]);
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
