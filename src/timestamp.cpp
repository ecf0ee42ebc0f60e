#include "kvffmpeg/timestamp.h"

#include <cmath>
#include <ctime>
#include <limits>
#include <ostream>

#include "text_format.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace kvffmpeg {
namespace {

// Signed overflow is undefined; conversions back from unsigned wrap with every compiler that we support.
std::int64_t wrappingAdd(std::int64_t a, std::int64_t b) noexcept {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

std::int64_t wrappingSubtract(std::int64_t a, std::int64_t b) noexcept {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

std::int64_t wrappingMultiply(std::int64_t a, std::int64_t b) noexcept {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

/// a / b, truncated, without the two traps: b = 0 gives 0, and INT64_MIN / -1 wraps.
std::int64_t safeDivide(std::int64_t a, std::int64_t b) noexcept {
    if (b == 0) return 0;
    if (b == -1) return wrappingSubtract(0, a);
    return a / b;
}

/// Truncates towards zero. What does not fit gives the smallest integer, as the x86 instructions do for most
/// types; left to the language it would be undefined.
template <typename Integer>
Integer truncate(float value) noexcept {
    // Both bounds are powers of two and exact in a float.
    constexpr float lowest = static_cast<float>(std::numeric_limits<Integer>::min());
    if (!(value >= lowest && value < -lowest)) return std::numeric_limits<Integer>::min();
    return static_cast<Integer>(value);
}

/// Compares with `Compare`, see Timestamp's comparisons.
template <typename Compare>
bool compareTimes(const Timestamp& a, const Timestamp& b, Compare compare) noexcept {
    if (a.timeBase() == b.timeBase()) return compare(a.value(), b.value());
    const std::int64_t common = helpers::lcm(a.timeBase().den, b.timeBase().den);
    return compare(safeDivide(wrappingMultiply(common, a.value()), a.timeBase().den),
                   safeDivide(wrappingMultiply(common, b.value()), b.timeBase().den));
}

}  // namespace

std::ostream& operator<<(std::ostream& out, Timebase base) {
    return out << formatText("%d/%d", base.num, base.den);
}

double Timestamp::valueInSeconds() const noexcept {
    return static_cast<double>(value_) * static_cast<double>(timeBase_.num) /
           static_cast<double>(timeBase_.den);
}

Timestamp Timestamp::rescale(const Timestamp& t, Timebase target) noexcept {
    Timestamp result(av_rescale_q(t.value_, t.timeBase_, target), target);
    result.nil_ = t.nil_;
    return result;
}

Timestamp Timestamp::rescaleUp(const Timestamp& t, Timebase target) noexcept {
    const std::int64_t multiplier = static_cast<std::int64_t>(t.timeBase_.num) * target.den;
    const std::int64_t divisor = static_cast<std::int64_t>(t.timeBase_.den) * target.num;
    Timestamp result(av_rescale_rnd(t.value_, multiplier, divisor, AV_ROUND_UP), target);
    result.nil_ = t.nil_;
    return result;
}

Timestamp Timestamp::operator+(const Timestamp& other) const noexcept {
    Timestamp result = *this;
    result.value_ = wrappingAdd(value_, other.rescale(timeBase_).value_);
    return result;
}

Timestamp Timestamp::operator-(const Timestamp& other) const noexcept {
    Timestamp result = *this;
    result.value_ = wrappingSubtract(value_, other.rescale(timeBase_).value_);
    return result;
}

Timestamp Timestamp::operator*(float factor) const noexcept {
    Timestamp result = *this;
    result.value_ = truncate<std::int64_t>(static_cast<float>(value_) * factor);
    return result;
}

Timestamp Timestamp::operator/(float factor) const noexcept {
    Timestamp result = *this;
    result.timeBase_.den = truncate<std::int32_t>(static_cast<float>(timeBase_.den) * factor);
    return result;
}

Timestamp Timestamp::operator++() noexcept {
    value_ = wrappingAdd(value_, 1);
    return *this;
}

bool Timestamp::operator<(const Timestamp& other) const noexcept {
    return compareTimes(*this, other, [](std::int64_t a, std::int64_t b) { return a < b; });
}
bool Timestamp::operator<=(const Timestamp& other) const noexcept {
    return compareTimes(*this, other, [](std::int64_t a, std::int64_t b) { return a <= b; });
}
bool Timestamp::operator>(const Timestamp& other) const noexcept {
    return compareTimes(*this, other, [](std::int64_t a, std::int64_t b) { return a > b; });
}
bool Timestamp::operator>=(const Timestamp& other) const noexcept {
    return compareTimes(*this, other, [](std::int64_t a, std::int64_t b) { return a >= b; });
}
bool Timestamp::operator==(const Timestamp& other) const noexcept {
    return compareTimes(*this, other, [](std::int64_t a, std::int64_t b) { return a == b; });
}
bool Timestamp::operator!=(const Timestamp& other) const noexcept {
    return compareTimes(*this, other, [](std::int64_t a, std::int64_t b) { return a != b; });
}

std::string Timestamp::debugDescription() const {
    if (nil_) return "null pts";
    std::string text = formatText("%0.6f", valueInSeconds());
    if (timeBase_ != Timebase{1, 1000000}) text += formatText(" (%d/%d)", timeBase_.num, timeBase_.den);
    return text;
}

std::ostream& operator<<(std::ostream& out, const Timestamp& timestamp) {
    return out << timestamp.debugDescription();
}

Timestamp now() noexcept {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return Timestamp(static_cast<std::int64_t>(time.tv_sec) * 1000000 + time.tv_nsec / 1000);
}

namespace helpers {

int gcd(int a, int b) noexcept {
    if (b == 0) return a;
    // 64 bits: INT_MIN % -1 traps in 32.
    std::int64_t dividend = a;
    std::int64_t divisor = b;
    for (std::int64_t remainder = dividend % divisor; remainder != 0; remainder = dividend % divisor) {
        dividend = divisor;
        divisor = remainder;
    }
    return static_cast<int>(divisor);
}

std::int64_t lcm(int a, int b) noexcept {
    const int divisor = gcd(a, b);
    if (divisor == 0) return 0;
    // |a / divisor| and |b| are at most 2^31, so the product fits.
    return static_cast<std::int64_t>(a) / divisor * b;
}

}  // namespace helpers
}  // namespace kvffmpeg
