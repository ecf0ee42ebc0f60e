#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "kvffmpeg/export.h"

/// \file
/// Times as ticks of a rational base, and the wall clock.

extern "C" {
#include <libavutil/rational.h>
}

namespace kvffmpeg {

/// The length of one tick: `num` / `den` seconds. An aggregate: `Timebase{1, 90000}`.
/// Fractions are never reduced, so 1/2 and 2/4 are different bases.
struct Timebase {
    std::int32_t num = 1;        ///< Numerator.
    std::int32_t den = 1000000;  ///< Denominator. Expected to be non-zero; not checked.

    /// The same two fields as FFmpeg's rational.
    operator AVRational() const noexcept { return AVRational{num, den}; }
    /// The time base with the two fields of `rational`.
    static Timebase fromAVRational(AVRational rational) noexcept {
        return Timebase{rational.num, rational.den};
    }
};

/// Field by field; 1/2 and 2/4 are not equal.
constexpr bool operator==(Timebase a, Timebase b) noexcept {
    return a.num == b.num && a.den == b.den;
}
/// Field by field; 1/2 and 2/4 are not equal.
constexpr bool operator!=(Timebase a, Timebase b) noexcept {
    return !(a == b);
}
/// Writes `num/den`.
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, Timebase base);

/// A point in time or a duration: a signed number of ticks, the `Timebase` that one tick is measured in,
/// and a flag that marks the time as absent ("nil").
///
/// A small trivially copyable value. The nil flag is carried along by copies, by `rescale` and by the left
/// operand of + and -; comparisons and right operands ignore it. Arithmetic wraps around at 64 bits.
class KVFFMPEG_EXPORT Timestamp {
public:
    /// Nil, in microseconds.
    constexpr Timestamp() noexcept = default;
    /// `value` microseconds.
    constexpr Timestamp(std::int64_t value) noexcept : value_(value), nil_(false) {}
    /// `value` ticks of `base`.
    constexpr Timestamp(std::int64_t value, Timebase base) noexcept
        : timeBase_(base), value_(value), nil_(false) {}
    /// `value` ticks of `num` / `den` seconds.
    constexpr Timestamp(std::int64_t value, int num, int den) noexcept
        : Timestamp(value, Timebase{num, den}) {}

    constexpr bool is_nil() const noexcept { return nil_; }             ///< True: no time is known.
    constexpr std::int64_t value() const noexcept { return value_; }    ///< In ticks; 0 by default.
    constexpr Timebase timeBase() const noexcept { return timeBase_; }  ///< The length of a tick.
    /// value x num / den in double precision.
    double valueInSeconds() const noexcept;

    /// `t` in ticks of `target`, rounded to the nearest tick, halves away from zero; nil stays nil.
    /// A target whose denominator is 0 and whose numerator is positive gives 0; other targets with a field
    /// that is not positive, and results that do not fit, give INT64_MIN. The value INT64_MIN counts as
    /// INT64_MIN + 1, also between equal bases.
    static Timestamp rescale(const Timestamp& t, Timebase target) noexcept;
    /// The same for this timestamp.
    Timestamp rescale(Timebase target) const noexcept { return rescale(*this, target); }
    /// As `rescale`, but rounded towards positive infinity, so that a time in a coarser base is never
    /// earlier than it was.
    static Timestamp rescaleUp(const Timestamp& t, Timebase target) noexcept;

    /// The sum in this timestamp's base; `other` is rounded to it. Nil exactly when this one is.
    Timestamp operator+(const Timestamp& other) const noexcept;
    /// The difference in this timestamp's base; `other` is rounded to it. Nil exactly when this one is.
    Timestamp operator-(const Timestamp& other) const noexcept;
    /// The value, as a `float`, times `factor`, truncated. Single precision: ticks beyond 2^24 are rounded.
    /// What does not fit, or is not a number, gives INT64_MIN.
    Timestamp operator*(float factor) const noexcept;
    /// Keeps the ticks and multiplies the base's denominator, as a `float`, by `factor` (truncated): dividing
    /// by 2 turns 1/1000000 into 1/2000000. A denominator that does not fit, or is not a number, is
    /// INT32_MIN.
    Timestamp operator/(float factor) const noexcept;
    /// Adds one tick and returns a copy.
    Timestamp operator++() noexcept;

    /// Comparisons. In equal bases the values are compared; otherwise both sides are brought to the least
    /// common multiple of the denominators, in 64 bits that wrap around, and *numerators are ignored*: exact
    /// for bases of the form 1/n. A denominator of 0 gives any answer. Nil flags do not count.
    bool operator<(const Timestamp& other) const noexcept;
    bool operator<=(const Timestamp& other) const noexcept;  ///< As `operator<`.
    bool operator>(const Timestamp& other) const noexcept;   ///< As `operator<`.
    bool operator>=(const Timestamp& other) const noexcept;  ///< As `operator<`.
    bool operator==(const Timestamp& other) const noexcept;  ///< As `operator<`.
    bool operator!=(const Timestamp& other) const noexcept;  ///< As `operator<`.

    /// "null pts" when nil, otherwise the seconds with six decimals, followed by the base in brackets
    /// unless that is 1/1000000: "1.500000", "0.120000 (1/25)". Independent of the global locale.
    std::string debugDescription() const;

private:
    Timebase timeBase_;
    std::int64_t value_ = 0;
    bool nil_ = true;
};

/// Writes `debugDescription()`.
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, const Timestamp& timestamp);

/// The wall clock: microseconds since the Unix epoch (CLOCK_REALTIME, truncated).
KVFFMPEG_EXPORT Timestamp now() noexcept;

/// Integer arithmetic behind the comparison of times.
namespace helpers {

/// Euclid's algorithm with truncating remainders and without absolute values, so the sign follows the
/// remainders: gcd(4, -6) is -2, gcd(-4, 6) is 2, gcd(0, b) is b. `b` is expected to be non-zero; for 0 the
/// result is `a`.
KVFFMPEG_EXPORT int gcd(int a, int b) noexcept;
/// a / gcd(a, b) x b in 64 bits; 0 when both are 0.
KVFFMPEG_EXPORT std::int64_t lcm(int a, int b) noexcept;

}  // namespace helpers
}  // namespace kvffmpeg
