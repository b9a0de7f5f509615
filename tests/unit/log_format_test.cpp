// SPDX-License-Identifier: Apache-2.0
//
// The text of a log line: escapes and limits.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "logging/line_format.h"

namespace {

using logging::formatEvent;
using logging::kMaxLine;
using logging::kStampSize;

std::string line(int level, std::vector<const char*> messages) {
  messages.push_back(nullptr);
  return formatEvent(level, messages.data());
}

// The value as it stands in the line, between its quotes.
std::string valueOf(const std::string& text) {
  const std::string whole = line(2, {"k", text.c_str()});
  const std::string front = std::string(kStampSize, ' ') + " 2 k=\"";
  EXPECT_EQ(whole.substr(0, front.size()), front);
  EXPECT_EQ(whole.substr(whole.size() - 2), "\"\n");
  return whole.substr(front.size(), whole.size() - front.size() - 2);
}

TEST(LogFormat, PairsFollowTheLevel) {
  const std::string blanks(29, ' ');
  EXPECT_EQ(line(2, {}), blanks + " 2\n");
  EXPECT_EQ(line(-2147483647 - 1, {"a", ""}), blanks + " -2147483648 a=\"\"\n");
  EXPECT_EQ(line(3, {"a", "1", "b"}), blanks + " 3 a=\"1\" b=\"\"\n");
  EXPECT_EQ(line(3, {"", "1"}), blanks + " 3 =\"1\"\n");
}

TEST(LogFormat, QuotesBackslashesAndLineEndsAreEscaped) {
  EXPECT_EQ(valueOf("a\"b\\c\nd\re\tf"), R"(a\"b\\c\nd\re\tf)");
  EXPECT_EQ(valueOf("\\\""), R"(\\\")");
  EXPECT_EQ(valueOf("\\n"), R"(\\n)");
}

TEST(LogFormat, EverySingleByteIsPrintableAfterwards) {
  for (int byte = 1; byte < 256; ++byte) {
    const std::string escaped = valueOf(std::string(1, static_cast<char>(byte)));
    if (byte == '"' || byte == '\\' || byte == '\n' || byte == '\r' || byte == '\t') {
      EXPECT_EQ(escaped.size(), 2U) << byte;
    } else if (byte < 0x20 || byte >= 0x7F) {
      char expected[8];
      std::snprintf(expected, sizeof expected, "\\x%02x", static_cast<unsigned int>(byte));
      EXPECT_EQ(escaped, expected);
    } else {
      EXPECT_EQ(escaped, std::string(1, static_cast<char>(byte)));
    }
  }
}

TEST(LogFormat, ValidUtf8Passes) {
  for (const char* text :
       {"\xC2\xA0", "\xC3\xA9", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x95\x9C\xEA\xB8\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
        "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF0\x9F\x94\x91", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_EQ(valueOf(text), text);
  }
}

TEST(LogFormat, BytesThatAreNoUtf8AreEscapedOneByOne) {
  EXPECT_EQ(valueOf("\x80"), "\\x80");                             // continues nothing
  EXPECT_EQ(valueOf("\xC3"), "\\xc3");                             // ends early
  EXPECT_EQ(valueOf("\xE2\x82"), "\\xe2\\x82");                    // ends early
  EXPECT_EQ(valueOf("\xF0\x9F\x94"), "\\xf0\\x9f\\x94");           // ends early
  EXPECT_EQ(valueOf("\xC3(\xC3\xA9"), "\\xc3(\xC3\xA9");           // goes on with the next character
  EXPECT_EQ(valueOf("\xC0\xA2"), "\\xc0\\xa2");                    // a quote, too long
  EXPECT_EQ(valueOf("\xC1\xBF"), "\\xc1\\xbf");                    // too long
  EXPECT_EQ(valueOf("\xE0\x9F\xBF"), "\\xe0\\x9f\\xbf");           // too long
  EXPECT_EQ(valueOf("\xF0\x8F\xBF\xBF"), "\\xf0\\x8f\\xbf\\xbf");  // too long
  EXPECT_EQ(valueOf("\xED\xA0\x80"), "\\xed\\xa0\\x80");           // a surrogate
  EXPECT_EQ(valueOf("\xED\xBF\xBF"), "\\xed\\xbf\\xbf");           // the last surrogate
  EXPECT_EQ(valueOf("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // past the last code point
  EXPECT_EQ(valueOf("\xF5\x80\x80\x80"), "\\xf5\\x80\\x80\\x80");  // no lead byte
  EXPECT_EQ(valueOf("\xFF\xFE"), "\\xff\\xfe");
}

TEST(LogFormat, ControlCharactersPastAsciiAreEscaped) {
  EXPECT_EQ(valueOf("\xC2\x80"), "\\xc2\\x80");
  EXPECT_EQ(valueOf("a\xC2\x85"
                    "b"),
            "a\\xc2\\x85b");  // next line
  EXPECT_EQ(valueOf("\xC2\x9B"
                    "2J"),
            "\\xc2\\x9b2J");  // a terminal's control sequence
  EXPECT_EQ(valueOf("\xC2\x9F"), "\\xc2\\x9f");
  EXPECT_EQ(valueOf("\xE2\x80\xA8"), "\\xe2\\x80\\xa8");                       // line separator
  EXPECT_EQ(valueOf("\xE2\x80\xA9"), "\\xe2\\x80\\xa9");                       // paragraph separator
  EXPECT_EQ(valueOf("\xE2\x80\xAE"), "\\xe2\\x80\\xae");                       // right-to-left override
  EXPECT_EQ(valueOf("\xE2\x81\xA6"), "\\xe2\\x81\\xa6");                       // left-to-right isolate
  EXPECT_EQ(valueOf("\xE2\x81\xA9"), "\\xe2\\x81\\xa9");                       // pop directional isolate
  EXPECT_EQ(valueOf("\xE2\x80\x8E"), "\\xe2\\x80\\x8e");                       // left-to-right mark
  EXPECT_EQ(valueOf("\xE2\x80\x8F"), "\\xe2\\x80\\x8f");                       // right-to-left mark
  EXPECT_EQ(valueOf("\xD8\x9C"), "\\xd8\\x9c");                                // Arabic letter mark
  EXPECT_EQ(valueOf("\xE2\x80\x8D\xE2\x80\x90"), "\xE2\x80\x8D\xE2\x80\x90");  // the marks' neighbours
  EXPECT_EQ(valueOf("\xE2\x81\xA5\xE2\x81\xAA"), "\xE2\x81\xA5\xE2\x81\xAA");  // the isolates' neighbours
  EXPECT_EQ(valueOf("\xE2\x80\xA7\xE2\x80\xAF"), "\xE2\x80\xA7\xE2\x80\xAF");  // their neighbours
}

TEST(LogFormat, AKeyCannotSpellAPair) {
  EXPECT_EQ(line(2, {"a=\"1\" b", "2"}), std::string(29, ' ') + " 2 a\\x3d\\\"1\\\" b=\"2\"\n");
  EXPECT_EQ(valueOf("a=1 b"), "a=1 b");
}

TEST(LogFormat, KeysKeepTheirBlanks) {
  EXPECT_EQ(line(2, {"iv mode", "RANDOM"}), std::string(29, ' ') + " 2 iv mode=\"RANDOM\"\n");
}

// 29 bytes of time, ` 2`, ` k="`, `"[cut]` and the line end leave 65494 for the text.
constexpr std::size_t kRoom = 65494;

std::string cutLine(const std::string& text) {
  return std::string(29, ' ') + " 2 k=\"" + text + "\"[cut]\n";
}

TEST(LogFormat, ATextThatFillsTheLineIsWhole) {
  EXPECT_EQ(valueOf(std::string(kRoom, 'x')), std::string(kRoom, 'x'));
  EXPECT_EQ(valueOf(std::string(kRoom - 4, 'x') + '\x01'), std::string(kRoom - 4, 'x') + "\\x01");
}

TEST(LogFormat, ATextPastTheLimitIsCutWithAMark) {
  const std::string cut = line(2, {"k", std::string(kRoom + 1, 'x').c_str()});
  EXPECT_EQ(cut, cutLine(std::string(kRoom, 'x')));
  EXPECT_EQ(cut.size(), 65536U);
  EXPECT_EQ(cut.size(), kMaxLine);
  EXPECT_EQ(line(2, {"k", std::string(10'000'000, 'x').c_str(), "next", "v"}), cut);
}

TEST(LogFormat, ACutStandsBetweenTwoCharacters) {
  const std::string text(kRoom - 1, 'x');
  EXPECT_EQ(line(2, {"k", (text + "\xC3\xA9").c_str()}), cutLine(text));
  EXPECT_EQ(line(2, {"k", (text + "\"").c_str()}), cutLine(text));
  EXPECT_EQ(line(2, {"k", (text + "\x80").c_str()}), cutLine(text));
}

TEST(LogFormat, AKeyThatDoesNotFitIsLeftOut) {
  const std::string text(kRoom, 'x');
  EXPECT_EQ(line(2, {"k", text.c_str(), "next", "v"}), cutLine(text));
  EXPECT_EQ(line(2, {std::string(kMaxLine, 'k').c_str(), "v"}), std::string(29, ' ') + " 2[cut]\n");
}

TEST(LogFormat, NoTextCanSpellTheMark) {
  EXPECT_EQ(valueOf("\"[cut]"), "\\\"[cut]");
}

}  // namespace
