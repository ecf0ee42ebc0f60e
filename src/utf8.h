#pragma once

#include <string>

namespace kvffmpeg {

/// The code points of a UTF-8 text, in which a byte-order mark is a character like any other. Stands in for
/// std::wstring_convert with std::codecvt_utf8, which newer standards leave out; also where some standard
/// libraries let an unfinished end or a surrogate pass it throws what that throws.
/// @throws std::range_error "wstring_convert::from_bytes" for what is no UTF-8: unfinished, overlong and
/// stray bytes, surrogates, and more than U+10FFFF.
std::u32string decodeUtf8(const std::string& text);

}  // namespace kvffmpeg
