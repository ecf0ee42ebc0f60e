#pragma once

#include <boost/format.hpp>
#include <locale>
#include <string>

namespace kvffmpeg {

/// boost::format with the classic locale, so that an application's global one does not change our texts.
template <typename... Values>
std::string formatText(const char* pattern, const Values&... values) {
    boost::format text(pattern, std::locale::classic());
    (void)(text % ... % values);
    return text.str();
}

}  // namespace kvffmpeg
