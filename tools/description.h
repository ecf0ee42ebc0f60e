#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <vector>

#include "input.h"

namespace kvffmpeg::tool {

/// Keys stay in the order in which they are added.
using Json = nlohmann::ordered_json;

struct PacketCount {
    std::uint64_t packets = 0;
    std::uint64_t keyFrames = 0;
};

/// What is known of an input; null where it is not. Its texts are the container's bytes, UTF-8 or not.
/// `counts`, if given, has one entry per track, or less.
Json describe(const Input& input, const std::vector<PacketCount>* counts);

}  // namespace kvffmpeg::tool
