#include "contest.h"
#include "kvffmpeg/chromakey.h"
#include "touch.h"

namespace drawing {
namespace {

constexpr std::uint8_t key[2] = {44, 21};  // pure green
constexpr float similarity = 0.2F;
constexpr float softness = 20.0F;  // alpha rises over about half of the distances that there are

/// A screen near the key colour with a subject of all colours before it.
void paintScreen(const Image& image) {
    std::mt19937 random = makeRandom(5);
    for (int y = 0; y < image.height() / 2; ++y) {
        for (int x = 0; x < image.width() / 2; ++x) {
            const bool isSubject = x > image.width() / 8 && x < image.width() * 3 / 8;
            for (const int plane : {1, 2}) {
                const auto noise = static_cast<unsigned>(random() >> 24);
                const unsigned value = isSubject ? noise : key[plane - 1] + noise / 8;
                image.row(plane, y)[x] = static_cast<std::uint8_t>(value);
            }
        }
    }
}

void touch(const Image& image) {
    for (int y = 0; y < image.height() / 2; ++y) {
        touchKey(image.row(3, 2 * y), image.row(3, 2 * y + 1), image.row(1, y), image.row(2, y),
                 static_cast<std::size_t>(image.width() / 2));
    }
}

Contest contest(kvffmpeg::rect_size_t size, float blend) {
    const Frames frames = makeFrames(size, AV_PIX_FMT_YUVA420P);
    for (const Image& frame : frames) paintScreen(frame);
    const Work ours = [=](std::size_t frame) {
        const Image& image = frames[frame];
        kvffmpeg::chromakey_yuva420p(image.planes(), image.linesizes(), image.width(), image.height(), key,
                                     similarity, blend);
    };
    const auto limit = static_cast<int>(static_cast<double>(similarity * similarity) * 255.0 * 255.0);
    const double slope = blend > 0 ? 1.0 / (static_cast<double>(blend) * 255.0) : 0;
    std::vector<Goal> goals = {{size == large ? 0.105 : 0.10, {"OpenCV"}}};
    if (size == large) goals.push_back({1.06, {"touch"}});
    return {{{"kvffmpeg", ours, true},
             {"OpenCV", opencvChromakey(frames, key[0], key[1], limit, slope), true},
             {"touch", [=](std::size_t frame) { touch(frames[frame]); }}},
            goals,
            frames};
}

}  // namespace

std::vector<Case> keyingCases() {
    std::vector<Case> cases;
    for (const kvffmpeg::rect_size_t size : {large, inCache}) {
        cases.push_back({"chromakey_yuva420p", "hard", size, [=] { return contest(size, 0); }});
        cases.push_back({"chromakey_yuva420p", "soft", size, [=] { return contest(size, softness); }});
    }
    return cases;
}

}  // namespace drawing
