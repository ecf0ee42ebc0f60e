#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvffmpeg::test {

/// The MD5 of bytes, as 32 hexadecimal digits.
std::string md5(const std::vector<std::uint8_t>& bytes);

}  // namespace kvffmpeg::test
