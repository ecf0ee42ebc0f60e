// Compares every variant of the drawing kernels that this CPU runs with the scalar one, on random images,
// positions, linesizes and alphas, in memory that ends or begins at pages that must not be touched.
//
//     kvffmpeg_fuzz_kernels [--seconds N] [--calls N] [--seed N] [--cases N]
//
// Ends after the seconds (60 unless given) or the calls of vector variants, whichever is given. What differs
// is told with the seed of its case, which `--seed N --cases 1` repeats.
//
// With KVFFMPEG_FUZZ_TARGET it is a fuzz target instead, whose input makes the choices that the seed made.

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kernels.h"
#include "kvffmpeg/blending.h"
#include "kvffmpeg/chromakey.h"
#include "kvffmpeg/ffdraw.h"
#include "support/guarded_bytes.h"

namespace kvffmpeg {
namespace {

using test::GuardedBytes;

/// A small generator (splitmix64) that gives the same numbers everywhere.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    /// Takes its choices from these bytes, two for each, until they are used up. They have no influence on
    /// the noise, since they would be used up at once.
    Random(const std::uint8_t* choices, std::size_t size)
        : state_(size), choices_(choices), choicesEnd_(choices + size) {}

    std::uint64_t noise() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15U);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
        return z ^ (z >> 31);
    }
    /// From `low` to `high`, both included.
    int between(int low, int high) {
        const auto span = static_cast<std::uint64_t>(static_cast<std::int64_t>(high) - low) + 1;
        return static_cast<int>(low + static_cast<std::int64_t>(choice() % span));
    }
    bool oneIn(int n) { return between(1, n) == 1; }
    void fill(std::uint8_t* bytes, std::ptrdiff_t count) {
        std::ptrdiff_t i = 0;
        for (; i + 8 <= count; i += 8) {
            const std::uint64_t value = noise();
            std::memcpy(bytes + i, &value, 8);
        }
        for (; i < count; ++i) bytes[i] = static_cast<std::uint8_t>(noise());
    }

private:
    std::uint64_t choice() {
        if (choicesEnd_ - choices_ < 2) return noise();
        choices_ += 2;
        return std::uint64_t{choices_[-2]} << 8 | choices_[-1];
    }

    std::uint64_t state_;
    const std::uint8_t* choices_ = nullptr;
    const std::uint8_t* choicesEnd_ = nullptr;
};

constexpr int longestSide = 200;
constexpr int longestPadding = 70;

/// A plane of up to 200 x 200 pixels of four bytes. Copies go from the scalar result to the variant's.
class Plane {
public:
    Plane() : memory_((longestSide * 4 + longestPadding) * longestSide) {}

    void shape(int rowBytes, int rows, Random& random) {
        rowBytes_ = rowBytes;
        rows_ = rows;
        linesize_ = rowBytes + (random.oneIn(2) ? random.between(0, longestPadding) : 0);
        const auto size = static_cast<std::size_t>(bytes());
        data_ = random.oneIn(2) ? memory_.front() : memory_.back(size);
    }
    void fillNoise(Random& random) { random.fill(data_, bytes()); }
    /// Runs of 0, of 255 and of noise, every `step` bytes.
    void fillAlpha(int step, int offset, Random& random) {
        const int samples = rowBytes_ / step;
        for (int y = 0; y < rows_; ++y) {
            std::uint8_t* row = data_ + static_cast<std::ptrdiff_t>(y) * linesize_ + offset;
            for (int x = 0; x < samples;) {
                const int kind = random.between(0, 2);
                const int end = std::min(samples, x + random.between(1, random.oneIn(3) ? 200 : 40));
                for (; x < end; ++x) {
                    row[x * step] = kind == 0   ? std::uint8_t{0}
                                    : kind == 1 ? std::uint8_t{255}
                                                : static_cast<std::uint8_t>(random.noise());
                }
            }
            // Rows that agree with the one above are what shortcuts are taken for.
            if (y > 0 && step == 1 && random.oneIn(2)) {
                std::memcpy(row, row - linesize_, static_cast<std::size_t>(samples));
            }
        }
    }
    std::ptrdiff_t bytes() const {
        return rows_ == 0 ? 0 : static_cast<std::ptrdiff_t>(rows_ - 1) * linesize_ + rowBytes_;
    }
    std::uint8_t* data() const { return data_; }
    int linesize() const { return linesize_; }
    void save(std::vector<std::uint8_t>& to) const { to.assign(data_, data_ + bytes()); }
    void restore(const std::vector<std::uint8_t>& from) { std::copy(from.begin(), from.end(), data_); }
    bool equals(const std::vector<std::uint8_t>& other) const {
        return std::equal(other.begin(), other.end(), data_);
    }

private:
    GuardedBytes memory_;
    std::uint8_t* data_ = nullptr;
    int rowBytes_ = 0;
    int rows_ = 0;
    int linesize_ = 0;
};

struct Image {
    std::array<Plane, 4> planes;
    int width = 0;
    int height = 0;

    void shapeYuva(Random& random) {
        width = random.between(0, longestSide);
        height = random.between(0, longestSide);
        const int chromaWidth = (width + 1) / 2;
        const int chromaHeight = (height + 1) / 2;
        planes[0].shape(width, height, random);
        planes[1].shape(chromaWidth, chromaHeight, random);
        planes[2].shape(chromaWidth, chromaHeight, random);
        planes[3].shape(width, height, random);
        for (Plane& plane : planes) plane.fillNoise(random);
    }
    void shapePacked(Random& random) {
        width = random.between(0, longestSide);
        height = random.between(0, longestSide);
        planes[0].shape(4 * width, height, random);
        planes[0].fillNoise(random);
    }
    std::array<std::uint8_t*, 4> data() const {
        return {planes[0].data(), planes[1].data(), planes[2].data(), planes[3].data()};
    }
    std::array<int, 4> linesizes() const {
        return {planes[0].linesize(), planes[1].linesize(), planes[2].linesize(), planes[3].linesize()};
    }
};

/// Runs one call with the scalar kernels and with every other variant on the same destination.
class Comparison {
public:
    Comparison() {
        for (const kernels::Variant* variant : kernels::all()) {
            if (variant != &kernels::scalar && variant->supported()) variants_.push_back(variant);
        }
    }

    const std::vector<const kernels::Variant*>& variants() const { return variants_; }
    std::uint64_t calls() const { return calls_; }

    /// @returns the variant that differs, or null.
    template <typename Call>
    const kernels::Variant* differs(Image& destination, int planes, const Call& call) {
        const auto count = static_cast<std::size_t>(planes);
        for (std::size_t p = 0; p < count; ++p) destination.planes[p].save(before_[p]);
        kernels::setActive(&kernels::scalar);
        call(kernels::scalar);
        for (std::size_t p = 0; p < count; ++p) destination.planes[p].save(expected_[p]);
        for (const kernels::Variant* variant : variants_) {
            for (std::size_t p = 0; p < count; ++p) destination.planes[p].restore(before_[p]);
            kernels::setActive(variant);
            call(*variant);
            ++calls_;
            for (std::size_t p = 0; p < count; ++p) {
                if (!destination.planes[p].equals(expected_[p])) return variant;
            }
        }
        return nullptr;
    }

private:
    std::vector<const kernels::Variant*> variants_;
    std::array<std::vector<std::uint8_t>, 4> before_;
    std::array<std::vector<std::uint8_t>, 4> expected_;
    std::uint64_t calls_ = 0;
};

/// In and out of the destination, touching its edges, and rarely far away.
int randomPosition(int overlaySize, int destinationSize, Random& random) {
    if (random.oneIn(50))
        return random.oneIn(2) ? INT_MIN + random.between(0, 300) : INT_MAX - random.between(0, 300);
    return random.between(-overlaySize - 3, destinationSize + 3);
}

class KernelFuzzer {
public:
    struct Difference {
        const char* what = "";
        const kernels::Variant* variant = nullptr;  ///< Null when all variants agreed.
    };

    Difference run(Random random) {
        const kernels::Variant* failed = nullptr;
        const char* what = "";
        switch (random.between(0, 7)) {
            case 0:
            case 1:
                what = "blend_image_yuva420";
                failed = blendYuva(random);
                break;
            case 2:
                what = "blend_image_rgba or blend_image_argb";
                failed = blendPacked(random);
                break;
            case 3:
                what = "chromakey_yuva420p";
                failed = chromakey(random);
                break;
            case 4:
                what = "composeRow";
                failed = composeRow(random);
                break;
            case 5:
                what = "mapRow";
                failed = mapRow(random);
                break;
            case 6:
                what = "repeatRow";
                failed = repeatRow(random);
                break;
            default:
                what = "ff_blend_mask";
                failed = blendMask(random);
        }
        return {what, failed};
    }
    const Comparison& comparison() const { return comparison_; }

private:
    const kernels::Variant* blendYuva(Random& random) {
        destination_.shapeYuva(random);
        overlay_.shapeYuva(random);
        overlay_.planes[3].fillAlpha(1, 0, random);
        const int x = randomPosition(overlay_.width, destination_.width, random);
        const int y = randomPosition(overlay_.height, destination_.height, random);
        return comparison_.differs(destination_, 3, [&](const kernels::Variant& /*unused*/) {
            blend_image_yuva420(destination_.data().data(), destination_.linesizes().data(),
                                destination_.width, destination_.height, overlay_.data().data(),
                                overlay_.linesizes().data(), overlay_.width, overlay_.height, x, y);
        });
    }

    const kernels::Variant* blendPacked(Random& random) {
        destination_.shapePacked(random);
        overlay_.shapePacked(random);
        const bool alphaFirst = random.oneIn(2);
        overlay_.planes[0].fillAlpha(4, alphaFirst ? 0 : 3, random);
        const int x = randomPosition(overlay_.width, destination_.width, random);
        const int y = randomPosition(overlay_.height, destination_.height, random);
        const auto blend = alphaFirst ? blend_image_argb : blend_image_rgba;
        return comparison_.differs(destination_, 1, [&](const kernels::Variant& /*unused*/) {
            blend(destination_.data().data(), destination_.linesizes().data(), destination_.width,
                  destination_.height, overlay_.data().data(), overlay_.linesizes().data(), overlay_.width,
                  overlay_.height, x, y);
        });
    }

    const kernels::Variant* chromakey(Random& random) {
        destination_.shapeYuva(random);
        // Chroma close to the key, where alpha changes.
        const std::uint8_t key[] = {static_cast<std::uint8_t>(random.between(0, 255)),
                                    static_cast<std::uint8_t>(random.between(0, 255))};
        const float similarity = static_cast<float>(random.between(0, 1000)) / 1000.0F;
        float blend = 0;
        if (!random.oneIn(3)) blend = static_cast<float>(random.between(-100, 1000)) / 999.0F;
        if (random.oneIn(10)) blend = 1e-30F;
        return comparison_.differs(destination_, 4, [&](const kernels::Variant& /*unused*/) {
            chromakey_yuva420p(destination_.data().data(), destination_.linesizes().data(),
                               destination_.width, destination_.height, key, similarity, blend);
        });
    }

    const kernels::Variant* composeRow(Random& random) {
        destination_.shapePacked(random);
        overlay_.shapePacked(random);
        const int pixelsPerSample = random.between(1, 2);
        const std::ptrdiff_t count = std::min<std::ptrdiff_t>(
            destination_.planes[0].bytes(), overlay_.planes[0].bytes() / (4 * pixelsPerSample));
        source_.shape(static_cast<int>(count), 1, random);
        source_.fillNoise(random);
        overlay_.planes[0].fillAlpha(4, 3, random);
        return comparison_.differs(destination_, 1, [&](const kernels::Variant& variant) {
            variant.composeRow(destination_.planes[0].data(), source_.data(), overlay_.planes[0].data(),
                               count, pixelsPerSample);
        });
    }

    const kernels::Variant* mapRow(Random& random) {
        destination_.shapePacked(random);
        source_.shape(256, 1, random);
        source_.fillNoise(random);
        return comparison_.differs(destination_, 1, [&](const kernels::Variant& variant) {
            variant.mapRow(destination_.planes[0].data(), destination_.planes[0].bytes(), source_.data());
        });
    }

    const kernels::Variant* repeatRow(Random& random) {
        destination_.shapePacked(random);
        source_.shape(kernels::patternBytes, 1, random);
        source_.fillNoise(random);
        return comparison_.differs(destination_, 1, [&](const kernels::Variant& variant) {
            variant.repeatRow(destination_.planes[0].data(), destination_.planes[0].bytes(), source_.data());
        });
    }

    const kernels::Variant* blendMask(Random& random) {
        static constexpr AVPixelFormat formats[] = {AV_PIX_FMT_YUVA420P, AV_PIX_FMT_GRAY8, AV_PIX_FMT_RGBA,
                                                    AV_PIX_FMT_0RGB};
        const AVPixelFormat format = formats[random.between(0, 3)];
        int planes = 1;
        if (format == AV_PIX_FMT_YUVA420P) {
            destination_.shapeYuva(random);
            planes = 4;
        } else {
            destination_.shapePacked(random);
            if (format == AV_PIX_FMT_GRAY8) destination_.width *= 4;
        }
        const int width = random.between(0, longestSide);
        const int height = random.between(0, longestSide);
        source_.shape(width, height, random);
        source_.fillAlpha(1, 0, random);
        FFDrawContext context;
        FFDrawColor color;
        ff_draw_init(&context, format, random.oneIn(2) ? FF_DRAW_PROCESS_ALPHA : 0);
        std::uint8_t rgba[4];
        random.fill(rgba, 4);
        if (random.oneIn(2)) rgba[3] = 255;
        ff_draw_color(&context, &color, rgba);
        const int x = randomPosition(width, destination_.width, random);
        const int y = randomPosition(height, destination_.height, random);
        return comparison_.differs(destination_, planes, [&](const kernels::Variant& /*unused*/) {
            ff_blend_mask(&context, &color, destination_.data().data(), destination_.linesizes().data(),
                          destination_.width, destination_.height, source_.data(), source_.linesize(), width,
                          height, 3, 0, x, y);
        });
    }

    Image destination_;
    Image overlay_;
    Plane source_;
    Comparison comparison_;
};

#ifndef KVFFMPEG_FUZZ_TARGET

struct Options {
    double seconds = 60;
    std::uint64_t calls = 0;
    std::uint64_t cases = 0;
    std::uint64_t seed = 1;
};

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (i + 1 == argc) return false;
        char* end = nullptr;
        const unsigned long long value = std::strtoull(argv[i + 1], &end, 10);
        if (end == argv[i + 1] || *end != '\0') return false;
        if (name == "--seconds") {
            options.seconds = static_cast<double>(value);
        } else if (name == "--calls") {
            options.calls = value;
        } else if (name == "--cases") {
            options.cases = value;
        } else if (name == "--seed") {
            options.seed = value;
        } else {
            return false;
        }
    }
    return true;
}

int fuzz(const Options& options) {
    using Clock = std::chrono::steady_clock;
    KernelFuzzer fuzzer;
    std::printf("Variants:");
    for (const kernels::Variant* variant : fuzzer.comparison().variants()) std::printf(" %s", variant->name);
    std::printf("; first seed %llu\n", static_cast<unsigned long long>(options.seed));
    if (fuzzer.comparison().variants().empty()) {
        std::puts("This CPU runs only the scalar variant: there is nothing to compare.");
        return 0;
    }
    const auto start = Clock::now();
    const auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    const auto done = [&](std::uint64_t cases) {
        if (options.cases > 0) return cases >= options.cases;
        if (options.calls > 0) return fuzzer.comparison().calls() >= options.calls;
        return elapsed() >= options.seconds;
    };
    std::uint64_t cases = 0;
    bool agreed = true;
    while (agreed && !done(cases)) {
        const std::uint64_t seed = options.seed + cases++;
        const KernelFuzzer::Difference found = fuzzer.run(Random(seed));
        if (!found.variant) continue;
        agreed = false;
        std::fprintf(stderr, "%s: %s differs from scalar; repeat with --seed %llu --cases 1\n", found.what,
                     found.variant->name, static_cast<unsigned long long>(seed));
    }
    std::printf("%llu cases, %llu calls of vector variants, %.0f s: %s\n",
                static_cast<unsigned long long>(cases),
                static_cast<unsigned long long>(fuzzer.comparison().calls()), elapsed(),
                agreed ? "no difference" : "a difference");
    return agreed ? 0 : 1;
}

#endif

}  // namespace
}  // namespace kvffmpeg

#ifdef KVFFMPEG_FUZZ_TARGET

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kvffmpeg;
    static KernelFuzzer fuzzer;
    const KernelFuzzer::Difference found = fuzzer.run(Random(data, size));
    if (found.variant) {
        std::fprintf(stderr, "%s: %s differs from scalar\n", found.what, found.variant->name);
        std::abort();
    }
    // For whoever else draws in this process.
    kernels::setActive(nullptr);
    return 0;
}

#else

int main(int argc, char** argv) {
    kvffmpeg::Options options;
    if (!kvffmpeg::parse(argc, argv, options)) {
        std::fputs("usage: kvffmpeg_fuzz_kernels [--seconds N] [--calls N] [--seed N] [--cases N]\n", stderr);
        return 2;
    }
    return kvffmpeg::fuzz(options);
}

#endif
