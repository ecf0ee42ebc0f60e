#pragma once

#include "input.h"

namespace kvffmpeg::tool {

struct ProbeOptions {
    InputOptions input;
    bool json = false;
    bool countPackets = false;
};

/// Writes what is known of an input to std::cout.
void probe(const ProbeOptions& options);

}  // namespace kvffmpeg::tool
