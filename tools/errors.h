#pragma once

#include <stdexcept>

namespace kvffmpeg::tool {

/// The command line asks for something that cannot be done: exit code 2. Other exceptions mean that the input
/// or the output is at fault: exit code 1.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace kvffmpeg::tool
