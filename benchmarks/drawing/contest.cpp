#include "contest.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <utility>

namespace drawing {
namespace {

constexpr double sampleMicroseconds = 50;
constexpr double rowMicroseconds = 1e6;
constexpr int mostRounds = 300;
constexpr int leastRounds = 15;

double processorMicroseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

double timeOf(const Work& work, std::size_t frame, int repetitions) {
    const double start = processorMicroseconds();
    for (int i = 0; i < repetitions; ++i) work(frame);
    return (processorMicroseconds() - start) / repetitions;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace

std::vector<std::string> strangers(const Contest& contest) {
    const std::uint8_t* expected = contest.frames[0].plane(0);
    contest.contenders[0].work(0);
    std::vector<std::string> result;
    for (std::size_t i = 1; i < contest.contenders.size(); ++i) {
        const Contender& contender = contest.contenders[i];
        if (!contender.work || !contender.samePicture) continue;
        contender.work(i);
        const std::uint8_t* bytes = contest.frames[i].plane(0);
        const std::size_t count = contest.frames[i].bytes();
        std::size_t differing = 0;
        for (std::size_t byte = 0; byte < count; ++byte) {
            if (static_cast<int>(byte % 4) == contest.ignoredByte) continue;
            if (std::abs(bytes[byte] - expected[byte]) > 3) ++differing;
        }
        if (static_cast<double>(differing) > 0.02 * static_cast<double>(count))
            result.push_back(contender.name);
    }
    return result;
}

std::vector<double> measure(const Contest& contest, bool staysInCache) {
    const std::size_t count = contest.contenders.size();
    std::vector<std::size_t> order;
    std::vector<int> repetitions(count, 1);
    for (std::size_t i = 0; i < count; ++i) {
        const Work& work = contest.contenders[i].work;
        if (!work) continue;
        order.push_back(i);
        timeOf(work, i, 1);
        const double once = std::min(timeOf(work, i, 1), timeOf(work, i, 1));
        if (staysInCache) {
            repetitions[i] = static_cast<int>(std::ceil(sampleMicroseconds / std::max(once, 0.01)));
        }
    }
    std::vector<std::vector<double>> times(count);
    std::mt19937 random = makeRandom(6);
    const double start = processorMicroseconds();
    for (int round = 0; round < mostRounds; ++round) {
        if (round >= leastRounds && processorMicroseconds() - start > rowMicroseconds) break;
        std::shuffle(order.begin(), order.end(), random);
        for (const std::size_t i : order) {
            const Work& work = contest.contenders[i].work;
            if (staysInCache) work(i);
            times[i].push_back(timeOf(work, i, repetitions[i]));
        }
    }
    std::vector<double> result;
    result.reserve(count);
    for (std::vector<double>& samples : times)
        result.push_back(samples.empty() ? -1 : median(std::move(samples)));
    return result;
}

}  // namespace drawing
