#include "utf8.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <codecvt>
#include <iterator>
#include <locale>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>

namespace kvffmpeg {
namespace {

using testing::StrEq;
using testing::ThrowsMessage;

std::optional<std::u32string> decoded(const std::string& text) {
    try {
        return decodeUtf8(text);
    } catch (const std::range_error&) {
        return std::nullopt;
    }
}

/// Not every release of the C++ library refuses surrogates.
bool hasSurrogate(const std::u32string& text) {
    return std::any_of(text.begin(), text.end(), [](char32_t c) { return c >= 0xD800 && c <= 0xDFFF; });
}

// Deprecated since C++17, which names no successor.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::optional<std::u32string> decodedByTheStandardLibrary(const std::string& text) {
    static const std::codecvt_utf8<char32_t> facet;
    std::u32string result(text.size(), U'\0');
    std::mbstate_t state{};
    const char* from = text.data();
    char32_t* to = &result[0];
    const auto status =
        facet.in(state, from, text.data() + text.size(), from, to, &result[0] + result.size(), to);
    if (status != std::codecvt_base::ok || from != text.data() + text.size()) return std::nullopt;
    result.resize(static_cast<std::size_t>(to - &result[0]));
    if (hasSurrogate(result)) return std::nullopt;
    return result;
}

/// What std::wstring_convert makes of a text; nothing where it throws, and where it gives what decodeUtf8 is
/// not to give: surrogates and, without a word, only what stands before an unfinished end.
std::optional<std::u32string> convertedByTheStandardLibrary(const std::string& text) {
    std::wstring_convert<std::codecvt_utf8<char32_t>, char32_t> converter;
    try {
        std::u32string result = converter.from_bytes(text);
        if (converter.converted() != text.size() || hasSurrogate(result)) return std::nullopt;
        return result;
    } catch (const std::range_error& error) {
        EXPECT_STREQ(error.what(), "wstring_convert::from_bytes");
        return std::nullopt;
    }
}
#pragma GCC diagnostic pop

std::string hexadecimal(const std::string& text) {
    std::string hex;
    for (const char c : text) {
        hex += "0123456789abcdef"[static_cast<unsigned char>(c) >> 4];
        hex += "0123456789abcdef"[static_cast<unsigned char>(c) & 15];
    }
    return hex;
}

void expectEqualDecoding(const std::string& text) {
    ASSERT_EQ(decoded(text), decodedByTheStandardLibrary(text)) << hexadecimal(text);
}

TEST(Utf8Test, EmptyTextHasNoCodePoints) {
    EXPECT_EQ(decodeUtf8(""), U"");
}

TEST(Utf8Test, DecodesOneToFourBytes) {
    EXPECT_EQ(decodeUtf8("A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), U"A\u00E9\u20AC\U0001F600");
}

TEST(Utf8Test, KeepsNullCharactersAndByteOrderMarks) {
    EXPECT_EQ(decodeUtf8(std::string("a\0b", 3)), std::u32string(U"a\0b", 3));
    EXPECT_EQ(decodeUtf8("\xEF\xBB\xBFx"), U"\uFEFFx");
}

TEST(Utf8Test, DecodesTheLargestCodePoint) {
    EXPECT_EQ(decodeUtf8("\xF4\x8F\xBF\xBF"), U"\U0010FFFF");
}

TEST(Utf8Test, InvalidTextThrowsWhatTheStandardConverterThrows) {
    for (const char* text : {"\xFF", "a\x80", "\xC0\x80", "\xC3(", "\xE0\x80\x80", "\xF0\x80\x80\x80",
                             "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80"}) {
        EXPECT_THAT([&] { decodeUtf8(text); },
                    ThrowsMessage<std::range_error>(StrEq("wstring_convert::from_bytes")))
            << hexadecimal(text);
    }
}

TEST(Utf8Test, UnfinishedTextThrows) {
    for (const char* text : {"a\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xF0"}) {
        EXPECT_THROW(decodeUtf8(text), std::range_error) << hexadecimal(text);
    }
}

TEST(Utf8Test, SurrogatesThrow) {
    for (const char* text : {"\xED\xA0\x80", "\xED\xBF\xBF"}) {
        EXPECT_THROW(decodeUtf8(text), std::range_error) << hexadecimal(text);
    }
    EXPECT_EQ(decodeUtf8("\xED\x9F\xBF\xEE\x80\x80"), U"\uD7FF\uE000");
}

TEST(Utf8Test, EqualsWstringConvertWhereThatTakesTheWholeText) {
    std::mt19937 random(3);
    for (int i = 0; i < 20000; ++i) {
        std::string text;
        for (auto length = random() % 6; length > 0; --length) {
            constexpr const char* parts[] = {"a",    "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                                             "\x80", "\xC3",     "\xF0\x9F",     "\xEF\xBB\xBF"};
            text += parts[random() % std::size(parts)];
        }
        ASSERT_EQ(decoded(text), convertedByTheStandardLibrary(text)) << hexadecimal(text);
    }
}

TEST(Utf8Test, EqualsTheStandardConverterForUpToThreeBytes) {
    std::string text;
    for (int first = 0; first < 256; ++first) {
        text.assign(1, static_cast<char>(first));
        ASSERT_NO_FATAL_FAILURE(expectEqualDecoding(text));
        for (int second = 0; second < 256; ++second) {
            text.resize(1);
            text += static_cast<char>(second);
            ASSERT_NO_FATAL_FAILURE(expectEqualDecoding(text));
            // What is invalid so far stays so, which few values of a third byte show well enough: exceptions
            // take their time.
            const bool mayGoOn = first < 0x80 || (second >= 0x80 && second < 0xC0);
            text += ' ';
            for (int third = 0; third < 256; third += mayGoOn && first >= 0xE0 && first < 0xF0 ? 1 : 51) {
                text[2] = static_cast<char>(third);
                ASSERT_NO_FATAL_FAILURE(expectEqualDecoding(text));
            }
        }
    }
}

TEST(Utf8Test, EqualsTheStandardConverterForFourBytesAtEveryLimit) {
    const int bytes[] = {0x00, 0x41, 0x7F, 0x80, 0x81, 0x8F, 0x90, 0x9F, 0xA0, 0xBE, 0xBF, 0xC0, 0xC2,
                         0xE0, 0xED, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xF7, 0xF8, 0xFE, 0xFF};
    for (int first = 0xE0; first < 256; ++first) {
        for (const int second : bytes) {
            for (const int third : bytes) {
                for (const int fourth : bytes) {
                    const std::string text{static_cast<char>(first), static_cast<char>(second),
                                           static_cast<char>(third), static_cast<char>(fourth)};
                    ASSERT_NO_FATAL_FAILURE(expectEqualDecoding(text));
                }
            }
        }
    }
}

TEST(Utf8Test, EqualsTheStandardConverterForNoiseAndForEveryCodePoint) {
    std::mt19937 random(5);
    for (int i = 0; i < 100000; ++i) {
        std::string text(random() % 12, ' ');
        for (char& c : text) c = static_cast<char>(random() % 4 == 0 ? random() % 128 : 128 + random() % 128);
        ASSERT_NO_FATAL_FAILURE(expectEqualDecoding(text));
    }
    for (unsigned c = 0x10000; c < 0x110000; c += 7) {
        const std::string text{static_cast<char>(0xF0 | c >> 18), static_cast<char>(0x80 | (c >> 12 & 63)),
                               static_cast<char>(0x80 | (c >> 6 & 63)), static_cast<char>(0x80 | (c & 63))};
        ASSERT_EQ(decodeUtf8(text), std::u32string(1, c));
        ASSERT_NO_FATAL_FAILURE(expectEqualDecoding(text));
    }
}

}  // namespace
}  // namespace kvffmpeg
