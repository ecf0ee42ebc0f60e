#include "kvffmpeg/color.h"

#include <iomanip>
#include <istream>
#include <ostream>
#include <stdexcept>

extern "C" {
#include <libavutil/parseutils.h>
}

namespace kvffmpeg {

Color::Color(const std::string& text) {
    std::uint8_t rgba[4];
    if (av_parse_color(rgba, text.c_str(), -1, nullptr) < 0) {
        throw std::runtime_error("Can not parse color value " + text);
    }
    *this = Color(rgba[0], rgba[1], rgba[2], rgba[3]);
}

std::ostream& operator<<(std::ostream& out, const Color& color) {
    const std::ios_base::fmtflags flags = out.flags();
    out << "#" << std::hex << std::nouppercase << std::noshowbase << std::right << std::setfill('0')
        << std::setw(2) << color.red << color.green << color.blue
        << color.alpha;  // the width is for the first number only
    out.flags(flags);
    return out;
}

std::istream& operator>>(std::istream& in, Color& color) {
    std::string word;
    in >> word;
    if (!in.bad()) color = Color(word);
    return in;
}

}  // namespace kvffmpeg
