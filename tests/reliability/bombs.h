#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace kvffmpeg::reliability {

/// A small file that claims, or unpacks to, an enormous picture.
struct Bomb {
    std::string name;    ///< Such as "PNG, 16000x16000 grey, all there".
    std::string ending;  ///< Of the file's name: libavformat looks at it, too.
    std::vector<std::uint8_t> (*make)();
};

/// For the names of tests.
inline void PrintTo(const Bomb& bomb, std::ostream* out) {
    *out << bomb.name;
}

/// Made by hand, as no encoder makes such files.
const std::vector<Bomb>& pictureBombs();

}  // namespace kvffmpeg::reliability
