#pragma once

#include <boost/format.hpp>
#include <locale>
#include <new>
#include <ostream>
#include <string>

namespace kvffmpeg {

/// A value that is written or throws: a stream that runs out of memory says so by its state alone, which
/// boost::format does not look at, and the text would lack what did not fit.
template <typename Value>
struct WrittenWhole {
    const Value& value;
};

template <typename Value>
std::ostream& operator<<(std::ostream& out, const WrittenWhole<Value>& whole) {
    out << whole.value;
    if (out.bad()) throw std::bad_alloc();
    return out;
}

/// boost::format with the classic locale, so that an application's global one does not change our texts.
/// @throws std::bad_alloc.
template <typename... Values>
std::string formatText(const char* pattern, const Values&... values) {
    boost::format text(pattern, std::locale::classic());
    (void)(text % ... % WrittenWhole<Values>{values});
    return text.str();
}

}  // namespace kvffmpeg
