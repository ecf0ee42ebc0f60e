#include "kernels.h"

#include <atomic>

namespace kvffmpeg::kernels {
namespace {

const Variant* const variants[] = {&scalar, &avx2, &avx512, &avx512vbmi};

const Variant& fastest() noexcept {
    static const Variant& found = []() -> const Variant& {
        const Variant* last = &scalar;
        for (const Variant* variant : variants) {
            if (variant->supported()) last = variant;
        }
        return *last;
    }();
    return found;
}

std::atomic<const Variant*> chosen{nullptr};

}  // namespace

VariantList all() noexcept {
    return {variants, sizeof(variants) / sizeof(variants[0])};
}

const Variant& active() noexcept {
    const Variant* variant = chosen.load(std::memory_order_relaxed);
    return variant ? *variant : fastest();
}

void setActive(const Variant* variant) noexcept {
    chosen.store(variant, std::memory_order_relaxed);
}

}  // namespace kvffmpeg::kernels
