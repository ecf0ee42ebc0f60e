#include "progress_text.h"

#include <cmath>
#include <cstdint>
#include <iomanip>
#include <sstream>

namespace kvffmpeg::tool {
namespace {

std::string rateText(double rate) {
    constexpr double fewestWithoutTenths = 10;
    std::ostringstream text;
    text << std::fixed << std::setprecision(rate < fewestWithoutTenths ? 1 : 0) << rate;
    return text.str();
}

/// "0:07", "12:00", "1:02:03".
std::string timeText(std::int64_t seconds) {
    std::ostringstream text;
    text << std::setfill('0');
    if (seconds >= 3600) text << seconds / 3600 << ':' << std::setw(2);
    text << seconds / 60 % 60 << ':' << std::setw(2) << seconds % 60;
    return text.str();
}

}  // namespace

std::string progressText(const ProgressState& state) {
    constexpr double shortest = 0.5;      // before that a rate is mostly what opening the input took
    constexpr double longestLeft = 1e6;   // beyond that, in seconds, it is a guess from too little
    constexpr double leastShare = 0.001;  // so is this
    std::string text = state.what;
    if (state.elapsed < shortest) return text;
    if (state.done > 0) text += ", " + rateText(state.done / state.elapsed) + state.unit;
    if (state.share && *state.share >= leastShare && *state.share <= 1) {
        const double left = state.elapsed * (1 - *state.share) / *state.share;
        if (left <= longestLeft) text += ", " + timeText(std::llround(std::ceil(left))) + " left";
    }
    return text;
}

}  // namespace kvffmpeg::tool
