#pragma once

#include <functional>
#include <string>
#include <vector>

#include "image.h"
#include "peers.h"

namespace drawing {

struct Contender {
    std::string name;
    Work work;  ///< Empty: not built.
    /// Whether it makes the library's picture, up to rounding and the last row and column of chroma.
    bool samePicture = false;
};

/// The library's time divided by that of the fastest of `against` is to be at most this.
struct Goal {
    double ratio;
    std::vector<std::string> against;
};

/// The library and its rivals on the same memory.
struct Contest {
    std::vector<Contender> contenders;  ///< The library first.
    std::vector<Goal> goals;
    Frames frames;  ///< What they write to, each to the one of its own number.        ///< What all of them
                    ///< write to.
    int ignoredByte = 4;  ///< Of each four bytes, the one that peers may set as they like; 4: none.
};

/// A row of the table. Prepared only when it is measured.
struct Case {
    std::string kernel;
    std::string content;
    kvffmpeg::rect_size_t size;
    std::function<Contest()> prepare;
};

std::vector<Case> blendingCases();
std::vector<Case> keyingCases();
std::vector<Case> fillingCases();
std::vector<Case> editingCases();

/// Those of the rivals that claim to make the library's picture but do not.
std::vector<std::string> strangers(const Contest& contest);

/// The median processor time of each contender in microseconds; negative for those that are not built.
///
/// They take turns, in another order in each round, because each finds the caches as its predecessor has left
/// them. Small images are meant to stay in the caches: there each contender runs once unmeasured, and then as
/// often as it takes for 50 microseconds at least.
std::vector<double> measure(const Contest& contest, bool staysInCache);

}  // namespace drawing
