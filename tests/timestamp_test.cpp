#include "kvffmpeg/timestamp.h"

#include <gmock/gmock.h>

#include <climits>
#include <cmath>
#include <cstddef>
#include <ctime>
#include <limits>
#include <locale>
#include <random>
#include <sstream>
#include <tuple>
#include <type_traits>
#include <vector>

namespace kvffmpeg {
namespace {

static_assert(std::is_trivially_copyable_v<Timestamp>);
static_assert(std::is_trivially_copyable_v<Timebase>);
static_assert(std::is_aggregate_v<Timebase>);
static_assert(sizeof(Timebase) == 8, "fits a machine word");
static_assert(sizeof(Timebase) == sizeof(AVRational));
static_assert(offsetof(Timebase, num) == offsetof(AVRational, num));
static_assert(offsetof(Timebase, den) == offsetof(AVRational, den));
static_assert(std::is_convertible_v<Timebase, AVRational>);
static_assert(std::is_same_v<decltype(++std::declval<Timestamp&>()), Timestamp>, "a copy, not a reference");
static_assert(std::is_same_v<decltype(helpers::gcd(1, 1)), int>);
static_assert(std::is_same_v<decltype(helpers::lcm(1, 1)), std::int64_t>);

constexpr std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t highest = std::numeric_limits<std::int64_t>::max();
constexpr Timebase microseconds{1, 1000000};

/// All fields: the comparisons of timestamps ignore some of them.
auto fields(const Timestamp& t) {
    return std::make_tuple(t.value(), t.timeBase().num, t.timeBase().den, t.is_nil());
}
auto fields(std::int64_t value, int num, int den, bool nil = false) {
    return std::make_tuple(value, num, den, nil);
}

/// A nil timestamp of any value and base.
Timestamp nilTimestamp(std::int64_t value, Timebase base) {
    return Timestamp::rescale(Timestamp(), base) + Timestamp(value, base);
}

/// Makes the global locale write 1.234.567,5 while it lives.
class HostileLocale {
public:
    HostileLocale() : before_(std::locale::global(std::locale(std::locale::classic(), new Punctuation))) {}
    ~HostileLocale() { std::locale::global(before_); }
    HostileLocale(const HostileLocale&) = delete;
    HostileLocale& operator=(const HostileLocale&) = delete;

private:
    struct Punctuation : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    std::locale before_;
};

TEST(TimebaseTest, EqualityIsFieldByField) {
    EXPECT_TRUE((Timebase{1, 25} == Timebase{1, 25}));
    EXPECT_FALSE((Timebase{1, 2} == Timebase{2, 4}));
    EXPECT_FALSE((Timebase{1, 25} == Timebase{1, 24}));
    EXPECT_FALSE((Timebase{1, 25} == Timebase{2, 25}));
}

TEST(TimebaseTest, InequalityIsTheNegationOfEquality) {
    EXPECT_FALSE((Timebase{1, 25} != Timebase{1, 25}));
    EXPECT_TRUE((Timebase{1, 2} != Timebase{2, 4}));
}

TEST(TimebaseTest, ConvertsToFFmpegsRationalAndBackWithoutReducing) {
    const AVRational rational = Timebase{2, 4};
    EXPECT_EQ(rational.num, 2);
    EXPECT_EQ(rational.den, 4);
    EXPECT_EQ(Timebase::fromAVRational(AVRational{6, -8}), (Timebase{6, -8}));
}

TEST(TimebaseTest, IsWrittenAsAFractionInAnyLocale) {
    const HostileLocale hostile;
    std::ostringstream out;
    out << Timebase{1, 1000000} << Timebase{-1001, 30000};
    EXPECT_EQ(out.str(), "1/1000000-1001/30000");
}

TEST(TimestampTest, DefaultIsNilInMicroseconds) {
    EXPECT_EQ(fields(Timestamp()), fields(0, 1, 1000000, true));
}

TEST(TimestampTest, ConstructorsSetValueAndBaseAndAreNotNil) {
    EXPECT_EQ(fields(Timestamp(0)), fields(0, 1, 1000000));
    EXPECT_EQ(fields(Timestamp(-7L)), fields(-7, 1, 1000000));
    EXPECT_EQ(fields(Timestamp(5, Timebase{2, 50})), fields(5, 2, 50));
    EXPECT_EQ(fields(Timestamp(lowest, 1001, 30000)), fields(lowest, 1001, 30000));
}

TEST(TimestampTest, CopiesAreFieldWise) {
    const Timestamp nil = nilTimestamp(9, {1, 25});
    const Timestamp copy(nil);
    Timestamp assigned(3);
    assigned = nil;
    EXPECT_EQ(fields(copy), fields(9, 1, 25, true));
    EXPECT_EQ(fields(assigned), fields(9, 1, 25, true));
    assigned = Timestamp(4, 1, 8);
    EXPECT_EQ(fields(assigned), fields(4, 1, 8));
}

TEST(TimestampTest, ValueInSecondsMultipliesBeforeItDivides) {
    EXPECT_EQ(Timestamp(1500000).valueInSeconds(), 1.5);
    EXPECT_EQ(Timestamp(-3, 1, 25).valueInSeconds(), -3.0 * 1.0 / 25.0);
    for (int value = 1; value < 100; ++value) {  // 1001 / 30000 first would round differently
        EXPECT_EQ(Timestamp(value, 1001, 30000).valueInSeconds(), value * 1001.0 / 30000.0) << value;
    }
}

TEST(TimestampTest, NowIsTheWallClockInMicroseconds) {
    const auto read = [] {
        timespec time{};
        clock_gettime(CLOCK_REALTIME, &time);
        return static_cast<std::int64_t>(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
    };
    std::int64_t before = 0, after = 0;
    Timestamp time;
    do {  // again if somebody has just put the clock back
        before = read();
        time = now();
        after = read();
    } while (after < before);
    EXPECT_FALSE(time.is_nil());
    EXPECT_EQ(time.timeBase(), microseconds);
    EXPECT_GE(time.value(), before);
    EXPECT_LE(time.value(), after);
}

TEST(TimestampTest, RescaleRoundsToTheNearestTick) {
    EXPECT_EQ(fields(Timestamp::rescale(Timestamp(1, 1, 3), {1, 1000})), fields(333, 1, 1000));
    EXPECT_EQ(fields(Timestamp::rescale(Timestamp(2, 1, 3), {1, 1000})), fields(667, 1, 1000));
    EXPECT_EQ(fields(Timestamp::rescale(Timestamp(-1, 1, 3), {1, 1000})), fields(-333, 1, 1000));
    EXPECT_EQ(fields(Timestamp(7, 1001, 30000).rescale({1, 1000000})), fields(233567, 1, 1000000));
}

TEST(TimestampTest, RescaleRoundsHalvesAwayFromZero) {
    EXPECT_EQ(Timestamp(1, 1, 2000).rescale({1, 1000}).value(), 1);
    EXPECT_EQ(Timestamp(-1, 1, 2000).rescale({1, 1000}).value(), -1);
    EXPECT_EQ(Timestamp(3, 1, 2000).rescale({1, 1000}).value(), 2);
    EXPECT_EQ(Timestamp(-3, 1, 2000).rescale({1, 1000}).value(), -2);
}

TEST(TimestampTest, RescaleUpRoundsTowardsPositiveInfinity) {
    EXPECT_EQ(fields(Timestamp::rescaleUp(Timestamp(1, 1, 3), {1, 1000})), fields(334, 1, 1000));
    EXPECT_EQ(fields(Timestamp::rescaleUp(Timestamp(2, 1, 3), {1, 1000})), fields(667, 1, 1000));
    EXPECT_EQ(fields(Timestamp::rescaleUp(Timestamp(-1, 1, 3), {1, 1000})), fields(-333, 1, 1000));
    EXPECT_EQ(Timestamp::rescaleUp(Timestamp(-1, 1, 2000), {1, 1000}).value(), 0);
    EXPECT_EQ(Timestamp::rescaleUp(Timestamp(1, 1, 1000000), {1, 1}).value(), 1);
}

TEST(TimestampTest, RescaleUpFormsItsProductsIn64Bits) {
    // 2^31 - 1 times itself: the same fraction on both sides.
    const Timebase large{INT_MAX, INT_MAX};
    EXPECT_EQ(fields(Timestamp::rescaleUp(Timestamp(11, large), large)), fields(11, INT_MAX, INT_MAX));
    EXPECT_EQ(fields(Timestamp::rescale(Timestamp(11, large), large)), fields(11, INT_MAX, INT_MAX));
}

TEST(TimestampTest, BothFormsOfRescaleAgree) {
    const Timestamp time(12345, 1, 90000);
    EXPECT_EQ(fields(time.rescale({1, 48000})), fields(Timestamp::rescale(time, {1, 48000})));
}

TEST(TimestampTest, RescaleCopiesTheNilFlag) {
    const Timestamp nil = nilTimestamp(90000, {1, 90000});
    EXPECT_EQ(fields(nil.rescale({1, 1000})), fields(1000, 1, 1000, true));
    EXPECT_EQ(fields(Timestamp::rescaleUp(nil, {1, 1000})), fields(1000, 1, 1000, true));
}

TEST(TimestampTest, RescaleHasNoShortcutForEqualBases) {
    EXPECT_EQ(Timestamp(lowest).rescale(microseconds).value(), lowest + 1);
    EXPECT_EQ(Timestamp::rescaleUp(Timestamp(lowest), microseconds).value(), lowest + 1);
    EXPECT_EQ(Timestamp(highest).rescale(microseconds).value(), highest);
}

TEST(TimestampTest, RescaleToADenominatorOfZeroGivesZero) {
    for (std::int64_t value : {lowest, std::int64_t{-5}, std::int64_t{0}, std::int64_t{5}, highest}) {
        EXPECT_EQ(fields(Timestamp(value).rescale({1, 0})), fields(0, 1, 0)) << value;
        EXPECT_EQ(fields(Timestamp::rescaleUp(Timestamp(value), {1, 0})), fields(0, 1, 0)) << value;
    }
}

TEST(TimestampTest, RescaleToABaseThatIsNotPositiveGivesTheSmallestValue) {
    for (Timebase target : {Timebase{0, 1}, Timebase{-1, 1}, Timebase{INT_MIN, 1}, Timebase{1, -1},
                            Timebase{1, INT_MIN}, Timebase{0, 1000000}, Timebase{0, -1}}) {
        EXPECT_EQ(fields(Timestamp(5).rescale(target)), fields(lowest, target.num, target.den)) << target;
        EXPECT_EQ(fields(Timestamp::rescaleUp(Timestamp(5), target)), fields(lowest, target.num, target.den))
            << target;
    }
}

TEST(TimestampTest, RescaleThatDoesNotFitGivesTheSmallestValue) {
    EXPECT_EQ(Timestamp(highest, 1, 1).rescale(microseconds).value(), lowest);
    EXPECT_EQ(Timestamp::rescaleUp(Timestamp(highest, 1, 1), microseconds).value(), lowest);
}

TEST(TimestampTest, SumIsInTheLeftBaseWithTheRightRounded) {
    EXPECT_EQ(fields(Timestamp(100, 1, 1000) + Timestamp(1, 1, 3)), fields(433, 1, 1000));
    EXPECT_EQ(fields(Timestamp(100, 1, 1000) + Timestamp(2, 1, 3)), fields(767, 1, 1000));
    EXPECT_EQ(fields(Timestamp(1, 1, 3) + Timestamp(100, 1, 1000)), fields(1, 1, 3));
}

TEST(TimestampTest, DifferenceIsInTheLeftBaseWithTheRightRounded) {
    EXPECT_EQ(fields(Timestamp(100, 1, 1000) - Timestamp(1, 1, 3)), fields(-233, 1, 1000));
    EXPECT_EQ(fields(Timestamp(5) - Timestamp(7)), fields(-2, 1, 1000000));
}

TEST(TimestampTest, SumAndDifferenceAreNilExactlyWhenTheLeftOperandIs) {
    const Timestamp nil = nilTimestamp(10, microseconds);
    EXPECT_EQ(fields(nil + Timestamp(1)), fields(11, 1, 1000000, true));
    EXPECT_EQ(fields(nil - Timestamp(1)), fields(9, 1, 1000000, true));
    EXPECT_EQ(fields(Timestamp(1) + nil), fields(11, 1, 1000000, false));
    EXPECT_EQ(fields(Timestamp(1) - nil), fields(-9, 1, 1000000, false));
    EXPECT_EQ(fields(nil + nil), fields(20, 1, 1000000, true));
}

TEST(TimestampTest, SumsAndDifferencesWrapAround) {
    EXPECT_EQ((Timestamp(highest) + Timestamp(1)).value(), lowest);
    EXPECT_EQ((Timestamp(lowest) + Timestamp(-1)).value(), highest);
    EXPECT_EQ((Timestamp(lowest) - Timestamp(1)).value(), highest);
    EXPECT_EQ((Timestamp(highest) - Timestamp(-1)).value(), lowest);
    EXPECT_EQ((Timestamp(highest) + Timestamp(highest)).value(), -2);
    // The right operand goes through rescale, which makes it INT64_MIN + 1.
    EXPECT_EQ((Timestamp(0) - Timestamp(lowest)).value(), highest);
    EXPECT_EQ((Timestamp(-1) + Timestamp(lowest)).value(), lowest);
}

TEST(TimestampTest, ArithmeticLeavesItsOperandsAlone) {
    const Timestamp left(100, 1, 1000), right(1, 1, 3);
    (void)(left + right);
    (void)(left - right);
    (void)(left * 2.0F);
    (void)(left / 2.0F);
    EXPECT_EQ(fields(left), fields(100, 1, 1000));
    EXPECT_EQ(fields(right), fields(1, 1, 3));
}

TEST(TimestampTest, ProductIsTruncatedTowardsZero) {
    EXPECT_EQ(fields(Timestamp(3) * 2.5F), fields(7, 1, 1000000));
    EXPECT_EQ(fields(Timestamp(-3, 1, 25) * 2.5F), fields(-7, 1, 25));
    EXPECT_EQ((Timestamp(3) * -0.25F).value(), 0);
    EXPECT_EQ(fields(nilTimestamp(3, {1, 25}) * 2.0F), fields(6, 1, 25, true));
}

TEST(TimestampTest, ProductGoesThroughSinglePrecision) {
    EXPECT_EQ((Timestamp(16777217) * 1.0F).value(), 16777216);
    EXPECT_EQ((Timestamp(1700000000123457) * 1.0F).value(),
              static_cast<std::int64_t>(static_cast<float>(1700000000123457)));
    EXPECT_NE((Timestamp(1700000000123457) * 1.0F).value(), 1700000000123457);
}

TEST(TimestampTest, ProductOutOfRangeOrNotANumberGivesTheSmallestValue) {
    const float infinity = std::numeric_limits<float>::infinity();
    EXPECT_EQ((Timestamp(highest) * 1.0F).value(), lowest);  // 2^63 as a float
    EXPECT_EQ((Timestamp(highest) * 4.0F).value(), lowest);
    EXPECT_EQ((Timestamp(highest) * -4.0F).value(), lowest);
    EXPECT_EQ((Timestamp(lowest) * 1.0F).value(), lowest);
    EXPECT_EQ((Timestamp(lowest) * -1.0F).value(), lowest);
    EXPECT_EQ((Timestamp(1) * infinity).value(), lowest);
    EXPECT_EQ((Timestamp(1) * -infinity).value(), lowest);
    EXPECT_EQ((Timestamp(0) * infinity).value(), lowest);
    EXPECT_EQ((Timestamp(1) * std::nanf("")).value(), lowest);
    EXPECT_EQ((Timestamp(std::int64_t{1} << 62) * 1.5F).value(), std::int64_t{3} << 61);  // still fits
}

TEST(TimestampTest, QuotientChangesTheDenominatorAndKeepsTheValue) {
    EXPECT_EQ(fields(Timestamp(10, 1, 1000) / 2.0F), fields(10, 1, 2000));
    EXPECT_EQ(fields(Timestamp(7) / 2.0F), fields(7, 1, 2000000));
    EXPECT_EQ(fields(Timestamp(7, 3, 5) / 0.5F), fields(7, 3, 2));
    EXPECT_EQ(fields(Timestamp(7, 1, 1000) / -2.0F), fields(7, 1, -2000));
    EXPECT_EQ(fields(Timestamp(7, 1, 1000) / 0.0F), fields(7, 1, 0));
    EXPECT_EQ(fields(nilTimestamp(7, {1, 10}) / 2.0F), fields(7, 1, 20, true));
    EXPECT_EQ((Timestamp(7, 1, 16777217) / 1.0F).timeBase().den, 16777216);
}

TEST(TimestampTest, DenominatorOutOfRangeOrNotANumberIsTheSmallestInteger) {
    const float infinity = std::numeric_limits<float>::infinity();
    EXPECT_EQ(fields(Timestamp(7) / 1e10F), fields(7, 1, INT_MIN));
    EXPECT_EQ(fields(Timestamp(7) / -1e10F), fields(7, 1, INT_MIN));
    EXPECT_EQ(fields(Timestamp(7, 1, INT_MAX) / 1.0F), fields(7, 1, INT_MIN));  // 2^31 as a float
    EXPECT_EQ(fields(Timestamp(7) / infinity), fields(7, 1, INT_MIN));
    EXPECT_EQ(fields(Timestamp(7) / std::nanf("")), fields(7, 1, INT_MIN));
}

TEST(TimestampTest, IncrementAddsOneTickAndReturnsACopy) {
    Timestamp time(41, 1, 25);
    const Timestamp result = ++time;
    EXPECT_EQ(fields(time), fields(42, 1, 25));
    EXPECT_EQ(fields(result), fields(42, 1, 25));
    Timestamp nil;
    ++nil;
    EXPECT_EQ(fields(nil), fields(1, 1, 1000000, true));
}

TEST(TimestampTest, IncrementWrapsAround) {
    Timestamp time(highest);
    EXPECT_EQ((++time).value(), lowest);
    EXPECT_EQ(time.value(), lowest);
}

/// <, ==, > in this order as -1, 0 or 1; fails when the six operators do not agree with each other.
int order(const Timestamp& a, const Timestamp& b) {
    const int result = a < b ? -1 : a == b ? 0 : 1;
    SCOPED_TRACE(testing::Message() << a << " " << a.timeBase() << " and " << b << " " << b.timeBase());
    EXPECT_EQ(a < b, result < 0);
    EXPECT_EQ(a <= b, result <= 0);
    EXPECT_EQ(a > b, result > 0);
    EXPECT_EQ(a >= b, result >= 0);
    EXPECT_EQ(a == b, result == 0);
    EXPECT_EQ(a != b, result != 0);
    return result;
}

TEST(TimestampComparisonTest, EqualBasesCompareTheRawValues) {
    EXPECT_EQ(order(Timestamp(1), Timestamp(2)), -1);
    EXPECT_EQ(order(Timestamp(2), Timestamp(2)), 0);
    EXPECT_EQ(order(Timestamp(3), Timestamp(2)), 1);
    EXPECT_EQ(order(Timestamp(lowest), Timestamp(highest)), -1);
    EXPECT_EQ(order(Timestamp(highest - 1, 2, 0), Timestamp(highest, 2, 0)), -1);  // no division
}

TEST(TimestampComparisonTest, DifferentBasesCompareTicksOfTheLeastCommonMultiple) {
    EXPECT_EQ(order(Timestamp(5, 1, 1000), Timestamp(5000)), 0);
    EXPECT_EQ(order(Timestamp(5, 1, 1000), Timestamp(5001)), -1);
    EXPECT_EQ(order(Timestamp(5, 1, 1000), Timestamp(4999)), 1);
    EXPECT_EQ(order(Timestamp(1, 1, 3), Timestamp(333333)), 1);
    EXPECT_EQ(order(Timestamp(1, 1, 3), Timestamp(333334)), -1);
    EXPECT_EQ(order(Timestamp(-1, 1, 3), Timestamp(-333333)), -1);
}

TEST(TimestampComparisonTest, NumeratorsAreIgnoredWhenBasesDiffer) {
    EXPECT_EQ(order(Timestamp(5, 2, 1000), Timestamp(5, 1, 1000)), 0);
    EXPECT_EQ(order(Timestamp(5, 7, 1000), Timestamp(6, 1, 1000)), -1);
    EXPECT_EQ(order(Timestamp(2, 2, 4), Timestamp(1, 1, 2)), 0);
    EXPECT_EQ(order(Timestamp(5, -1, 1000), Timestamp(5000)), 0);
}

TEST(TimestampComparisonTest, NilIsIgnored) {
    EXPECT_EQ(order(Timestamp(), Timestamp(0)), 0);
    EXPECT_EQ(order(Timestamp(), Timestamp()), 0);
    EXPECT_EQ(order(nilTimestamp(1, microseconds), nilTimestamp(2, microseconds)), -1);
    EXPECT_EQ(order(nilTimestamp(1, {1, 1000}), Timestamp(1000)), 0);
}

TEST(TimestampComparisonTest, IsExactForBasesOfOnePerTick) {
    std::mt19937 random(20240611);
    std::uniform_int_distribution<int> denominators(1000, 200000), values(-1000000, 1000000);
    for (int round = 0; round < 20000; ++round) {
        const int den = denominators(random), otherDen = denominators(random);
        const int value = values(random);
        // Half of the time near equality, where an error would show.
        const auto near = static_cast<int>(std::int64_t{value} * otherDen / den);
        const int otherValue = round % 2 == 0 ? near + round % 3 - 1 : values(random);
        const std::int64_t left = std::int64_t{value} * otherDen, right = std::int64_t{otherValue} * den;
        ASSERT_EQ(order(Timestamp(value, 1, den), Timestamp(otherValue, 1, otherDen)), left < right    ? -1
                                                                                       : left == right ? 0
                                                                                                       : 1)
            << value << " of 1/" << den << ", " << otherValue << " of 1/" << otherDen;
    }
}

TEST(TimestampComparisonTest, ProductsWrapAround) {
    // L is 6: 6 x (2^63 - 1) wraps to -6, which is -3 ticks.
    EXPECT_EQ(order(Timestamp(highest, 1, 2), Timestamp(-1, 1, 3)), -1);  // -3 and -2
    EXPECT_EQ(order(Timestamp(highest, 1, 2), Timestamp(-2, 1, 3)), 1);   // -3 and -4
    EXPECT_EQ(order(Timestamp(lowest, 1, 2), Timestamp(0, 1, 3)), 0);     // 6 x -2^63 wraps to 0
}

TEST(TimestampComparisonTest, NoDenominatorTraps) {
    const std::vector<int> denominators{0, -1, 1, INT_MIN, INT_MAX, -2, 1000000};
    const std::vector<std::int64_t> values{lowest, lowest + 1, -1, 0, 1, highest};
    for (int den : denominators) {
        for (int otherDen : denominators) {
            for (std::int64_t value : values) {
                for (std::int64_t otherValue : values) {
                    // Any answer, but one: `order` looks at all six operators.
                    (void)order(Timestamp(value, 1, den), Timestamp(otherValue, 2, otherDen));
                }
            }
        }
    }
    // L is -1: -1 x 3 / -1 = 3 and -1 x -3 / 1 = 3.
    EXPECT_EQ(order(Timestamp(3, 1, -1), Timestamp(-3, 1, 1)), 0);
}

TEST(TimestampTextTest, NilIsNullPtsWhateverItsValueAndBase) {
    EXPECT_EQ(Timestamp().debugDescription(), "null pts");
    EXPECT_EQ(nilTimestamp(7, {1, 25}).debugDescription(), "null pts");
}

TEST(TimestampTextTest, MicrosecondsAreSecondsWithSixDecimals) {
    EXPECT_EQ(Timestamp(1500000).debugDescription(), "1.500000");
    EXPECT_EQ(Timestamp(-40000).debugDescription(), "-0.040000");
    EXPECT_EQ(Timestamp(0).debugDescription(), "0.000000");
    EXPECT_EQ(Timestamp(1700000000123456).debugDescription(), "1700000000.123456");
}

TEST(TimestampTextTest, OtherBasesAreAppended) {
    EXPECT_EQ(Timestamp(3, 1, 25).debugDescription(), "0.120000 (1/25)");
    EXPECT_EQ(Timestamp(1, 1001, 30000).debugDescription(), "0.033367 (1001/30000)");
    EXPECT_EQ(Timestamp(7, 1, 1).debugDescription(), "7.000000 (1/1)");
    EXPECT_EQ(Timestamp(5, 1, 1000).debugDescription(), "0.005000 (1/1000)");
}

TEST(TimestampTextTest, ABaseThatDiffersInTheNumeratorOnlyIsAppendedToo) {
    EXPECT_EQ(Timestamp(3, 2, 1000000).debugDescription(), "0.000006 (2/1000000)");
}

TEST(TimestampTextTest, StreamGetsTheDescriptionAndIsReturned) {
    std::ostringstream out;
    EXPECT_EQ(&(out << Timestamp(3, 1, 25)), &out);
    out << "|" << Timestamp();
    EXPECT_EQ(out.str(), "0.120000 (1/25)|null pts");
}

TEST(TimestampTextTest, DoesNotDependOnTheGlobalLocale) {
    const HostileLocale hostile;
    EXPECT_EQ(Timestamp(1234567890123456, 1, 90000).debugDescription(), "13717421001.371733 (1/90000)");
    std::ostringstream out;
    out << Timestamp(1234567000000);
    EXPECT_EQ(out.str(), "1234567.000000");
}

TEST(HelpersTest, GcdFollowsEuclidWithSignedRemainders) {
    EXPECT_EQ(helpers::gcd(12, 18), 6);
    EXPECT_EQ(helpers::gcd(18, 12), 6);
    EXPECT_EQ(helpers::gcd(0, 7), 7);
    EXPECT_EQ(helpers::gcd(0, -7), -7);
    EXPECT_EQ(helpers::gcd(4, -6), -2);
    EXPECT_EQ(helpers::gcd(-4, 6), 2);
    EXPECT_EQ(helpers::gcd(7, 1), 1);
    EXPECT_EQ(helpers::gcd(1000000, 90000), 10000);
}

TEST(HelpersTest, GcdOfTheSmallestIntegerDoesNotTrap) {
    EXPECT_EQ(helpers::gcd(INT_MIN, -1), -1);
    EXPECT_EQ(helpers::gcd(-1, INT_MIN), -1);
    EXPECT_EQ(helpers::gcd(INT_MIN, INT_MIN), INT_MIN);
    EXPECT_EQ(helpers::gcd(0, INT_MIN), INT_MIN);
    EXPECT_EQ(helpers::gcd(INT_MIN, INT_MAX), -1);
}

TEST(HelpersTest, LcmDividesFirstAndMultipliesIn64Bits) {
    EXPECT_EQ(helpers::lcm(4, 6), 12);
    EXPECT_EQ(helpers::lcm(1000, 1000000), 1000000);
    EXPECT_EQ(helpers::lcm(90000, 48000), 720000);
    EXPECT_EQ(helpers::lcm(INT_MAX, INT_MAX - 1), 4611686011984936962);
    EXPECT_EQ(helpers::lcm(-4, 6), -12);
    EXPECT_EQ(helpers::lcm(4, -6), 12);  // gcd is -2: (4 / -2) x -6
    EXPECT_EQ(helpers::lcm(0, 7), 0);
}

TEST(HelpersTest, LcmOfTheSmallestIntegerDoesNotTrap) {
    EXPECT_EQ(helpers::lcm(INT_MIN, -1), INT_MIN);
    EXPECT_EQ(helpers::lcm(-1, INT_MIN), INT_MIN);
    EXPECT_EQ(helpers::lcm(INT_MIN, INT_MIN), INT_MIN);
    EXPECT_EQ(helpers::lcm(INT_MIN, INT_MAX), std::int64_t{INT_MIN} * -1 * INT_MAX);
}

}  // namespace
}  // namespace kvffmpeg
