// SPDX-License-Identifier: Apache-2.0
#include "logging/line_format.h"

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace logging {
namespace {

constexpr std::string_view kCutEnd = "[cut]\n";
constexpr std::size_t kMaxBody = kMaxLine - 1 - kCutEnd.size();  // a closing quote and the end of a cut line always fit

constexpr std::uint32_t kNoCharacter = 0xFFFFFFFF;

// A character of UTF-8 text: what it is, and how many bytes it takes.
struct Character {
  std::uint32_t code;
  std::size_t size;
};

unsigned char byteAt(const char* text, std::size_t i) noexcept {
  return static_cast<unsigned char>(text[i]);
}

// The character that a zero-terminated, non-empty text begins with. A byte that begins none is {kNoCharacter, 1}. Reads
// no further than the first byte that continues nothing, the terminating zero at the latest.
Character decode(const char* text) noexcept {
  const unsigned char lead = byteAt(text, 0);
  if (lead < 0x80) {
    return {lead, 1};
  }
  const std::size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4) {
    return {kNoCharacter, 1};
  }
  std::uint32_t code = lead & (0x7FU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    const unsigned char next = byteAt(text, i);
    if ((next & 0xC0U) != 0x80) {
      return {kNoCharacter, 1};
    }
    code = (code << 6) | (next & 0x3FU);
  }
  const bool overlong = (size == 3 && code < 0x800) || (size == 4 && code < 0x10000);
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  return overlong || surrogate || code > 0x10FFFF ? Character{kNoCharacter, 1} : Character{code, size};
}

// Whether a character could end a line, move a terminal's cursor, or change the order in which text is shown.
bool isControl(std::uint32_t code) noexcept {
  return code < 0x20 || (code >= 0x7F && code <= 0x9F) || (code >= 0x2028 && code <= 0x202E) ||
         (code >= 0x2066 && code <= 0x2069) || code == 0x200E || code == 0x200F || code == 0x061C;
}

// The short escape of a character, or empty when it has none.
std::string_view shortEscape(std::uint32_t code) noexcept {
  switch (code) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return {};
  }
}

// A body that grows to kMaxBody bytes and no further.
class Body {
 public:
  explicit Body(std::string& line) : line_(line) {}

  // Appends `piece` whole, or returns false.
  bool add(std::string_view piece) {
    if (line_.size() + piece.size() > kMaxBody) {
      return false;
    }
    line_.append(piece);
    return true;
  }

  // Appends a text, escaped, as far as whole characters fit. Returns false when it was cut.
  bool addText(const char* text, bool isKey) {
    while (*text != '\0') {
      const Character character = decode(text);
      if (!addCharacter(character, text, isKey)) {
        return false;
      }
      text += character.size;
    }
    return true;
  }

 private:
  bool addCharacter(const Character& character, const char* bytes, bool isKey) {
    if (const std::string_view escape = shortEscape(character.code); !escape.empty()) {
      return add(escape);
    }
    const bool separates = isKey && character.code == '=';
    if (!separates && character.code != kNoCharacter && !isControl(character.code)) {
      return add({bytes, character.size});
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    char escape[16];  // \xNN for each of at most four bytes
    for (std::size_t i = 0; i < character.size; ++i) {
      const unsigned char byte = byteAt(bytes, i);
      escape[4 * i] = '\\';
      escape[4 * i + 1] = 'x';
      escape[4 * i + 2] = kDigits[byte >> 4];
      escape[4 * i + 3] = kDigits[byte & 0xFU];
    }
    return add({escape, 4 * character.size});
  }

  std::string& line_;
};

}  // namespace

std::string formatEvent(int level, const char* const* messages) {
  std::string line(kStampSize, ' ');
  line.append(" ").append(std::to_string(level));
  Body body(line);
  for (const char* const* next = messages; *next != nullptr;) {
    const std::size_t start = line.size();
    const char* key = *next++;
    const char* value = *next != nullptr ? *next++ : "";
    if (!body.add(" ") || !body.addText(key, true) || !body.add("=\"")) {
      line.resize(start);
      line.append(kCutEnd);
      return line;
    }
    const bool whole = body.addText(value, false);
    line.append("\"");
    if (!whole) {
      line.append(kCutEnd);
      return line;
    }
  }
  line.append("\n");
  return line;
}

bool stampTime(std::string& line, const timespec& time) noexcept {
  tm local = {};
  if (localtime_r(&time.tv_sec, &local) == nullptr || local.tm_year < 1000 - 1900 || local.tm_year > 9999 - 1900) {
    return false;
  }
  const long minutes = local.tm_gmtoff / 60;
  const long east = minutes < 0 ? -minutes : minutes;
  char stamp[128];
  const int size = std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%03ld%c%02ld:%02ld",
                                 local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                                 local.tm_sec, time.tv_nsec / 1000000, minutes < 0 ? '-' : '+', east / 60, east % 60);
  if (size != static_cast<int>(kStampSize) || line.size() < kStampSize) {
    return false;
  }
  line.replace(0, kStampSize, stamp, kStampSize);
  return true;
}

}  // namespace logging
