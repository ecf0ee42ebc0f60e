#pragma once

#include <string>

#include "kvffmpeg/color.h"
#include "kvffmpeg/geometry.h"
#include "kvffmpeg/timestamp.h"

namespace kvffmpeg::tool {

/// The longest side that a picture can be asked to have.
constexpr int longestSide = 65535;

/// What becomes transparent, as `ImageUtils::chromaKeying` takes it. The defaults are for an evenly lit
/// screen of about the given colour.
struct KeyArgument {
    Color color;
    float similarity = 0.2F;
    float blend = 0.02F;
};

/// A picture file, or a colour when there is no path.
struct BackgroundArgument {
    std::string path;
    Color color;
};

struct FillArgument {
    rect_t area;
    Color color;
};

struct OverlayArgument {
    std::string path;
    point_t position;
};

struct TextArgument {
    std::string text;
    point_t position;
};

/// Space around a text, in pixels.
struct PaddingArgument {
    int left = 0;
    int top = 0;
    int right = 0;
    int bottom = 0;
};

/// "12.5" (seconds) or "[HH:]MM:SS[.mmm]", in microseconds; digits beyond those are dropped.
/// @throws UsageError for anything else.
Timestamp parseTime(const std::string& text);

/// "640x360", "640x-1" or "-1x360"; a side of -1 follows from the other one.
/// @throws UsageError for anything else.
rect_size_t parseSize(const std::string& text);

/// "1280x240", both sides given. @throws UsageError for anything else.
rect_size_t parseExactSize(const std::string& text);

/// A whole number from `least` to `most`, which is 999999999 at most: the value of `option`.
/// @throws UsageError for anything else.
unsigned int parseNumber(const std::string& option, const std::string& text, unsigned int least,
                         unsigned int most = 999999999);

/// "COLOR", "COLOR:SIMILARITY" or "COLOR:SIMILARITY:BLEND". @throws UsageError for anything else.
KeyArgument parseKey(const std::string& text);

/// The path of a file that is there, or else a colour. @throws UsageError for anything else.
BackgroundArgument parseBackground(const std::string& text);

/// "X,Y,W,H,COLOR"; X and Y may be negative. @throws UsageError for anything else.
FillArgument parseFill(const std::string& text);

/// "FILE@X,Y"; X and Y may be negative, and the file's name may have further "@". @throws UsageError for
/// anything else.
OverlayArgument parseOverlay(const std::string& text);

/// "TEXT@X,Y"; X and Y may be negative, and the text may have further "@". @throws UsageError for anything
/// else.
TextArgument parseText(const std::string& text);

/// "L,T,R,B", none of them negative. @throws UsageError for anything else.
PaddingArgument parsePadding(const std::string& text);

/// The value of `option`, with alpha or without. @throws UsageError for anything else.
Color parseColor(const std::string& option, const std::string& text);

/// "COLUMNSxROWS". @throws UsageError for anything else.
rect_size_t parseGrid(const std::string& text);

}  // namespace kvffmpeg::tool
