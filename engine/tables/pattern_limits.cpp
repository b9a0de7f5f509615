// SPDX-License-Identifier: Apache-2.0
#include "engine/tables/pattern_limits.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace engine {
namespace {

constexpr std::uint64_t kCharacterCost = 1;
constexpr std::uint64_t kAlternativeCost = 2;
constexpr std::uint64_t kGroupCost = 16;
constexpr std::uint64_t kRepetitionCost = 16;
constexpr std::uint64_t kManyCopies = 65536;  // more than regcomp accepts

// Reads a pattern once, adding up what it expands to.
class PatternReader {
 public:
  explicit PatternReader(std::string_view pattern) noexcept : pattern_(pattern) {}

  bool isBounded() noexcept {
    while (at_ < pattern_.size()) {
      if (!readOne() || finished_ + last_ > kMaxPatternCost) {
        return false;
      }
    }
    std::uint64_t cost = finished_ + last_;
    std::for_each_n(outer_.begin(), depth_, [&cost](std::uint64_t outer) { cost += outer; });
    return cost <= kMaxPatternCost;
  }

 private:
  // Reads one element. Returns false for one that no pattern may hold.
  bool readOne() noexcept {
    switch (pattern_[at_++]) {
      case '\0':
        return false;
      case '(':
        return openGroup();
      case ')':
        closeGroup();
        return true;
      case '|':
        finished_ += last_ + kAlternativeCost;
        last_ = 0;
        return true;
      case '*':
      case '?':
        last_ += kRepetitionCost;
        return true;
      case '+':
        last_ = 2 * last_ + kRepetitionCost;
        return true;
      case '{':
        readInterval();
        return true;
      case '[':
        skipBracket();
        addCharacter();
        return true;
      case '\\':
        return readEscape();
      default:
        addCharacter();
        return true;
    }
  }

  void addCharacter() noexcept {
    finished_ += last_;
    last_ = kCharacterCost;
  }

  bool openGroup() noexcept {
    if (depth_ == kMaxPatternDepth) {
      return false;
    }
    outer_[depth_++] = finished_ + last_;
    finished_ = 0;
    last_ = 0;
    return true;
  }

  void closeGroup() noexcept {
    if (depth_ == 0) {
      addCharacter();
      return;
    }
    last_ += finished_ + kGroupCost;
    finished_ = outer_[--depth_];
  }

  bool readEscape() noexcept {
    if (at_ < pattern_.size()) {
      const char escaped = pattern_[at_++];
      if (escaped == '\0' || (escaped >= '1' && escaped <= '9')) {
        return false;
      }
    }
    addCharacter();
    return true;
  }

  // {m}, {m,}, {m,n} or {,n}, behind its brace. What has another form is a character, or refused by regcomp.
  void readInterval() noexcept {
    const std::size_t start = at_;
    const std::uint64_t least = readNumber();
    std::uint64_t copies = least;
    if (at_ < pattern_.size() && pattern_[at_] == ',') {
      ++at_;
      copies = std::max(readNumber(), least + 1);
    }
    if (at_ < pattern_.size() && pattern_[at_] == '}') {
      ++at_;
      last_ = (last_ + kRepetitionCost) * std::max<std::uint64_t>(copies, 1);
    } else {
      at_ = start;
      addCharacter();
    }
  }

  std::uint64_t readNumber() noexcept {
    std::uint64_t number = 0;
    for (; at_ < pattern_.size() && pattern_[at_] >= '0' && pattern_[at_] <= '9'; ++at_) {
      number = std::min(number * 10 + static_cast<std::uint64_t>(pattern_[at_] - '0'), kManyCopies);
    }
    return number;
  }

  // A bracket expression, behind its opening bracket. One that is not closed takes the rest; regcomp refuses it.
  void skipBracket() noexcept {
    if (at_ < pattern_.size() && pattern_[at_] == '^') {
      ++at_;
    }
    if (at_ < pattern_.size() && pattern_[at_] == ']') {
      ++at_;
    }
    while (at_ < pattern_.size() && pattern_[at_] != ']') {
      const bool opens = pattern_[at_] == '[' && at_ + 1 < pattern_.size();
      const char kind = opens ? pattern_[at_ + 1] : '\0';
      ++at_;
      if (kind == ':' || kind == '.' || kind == '=') {
        const char close[] = {kind, ']'};
        const std::size_t end = pattern_.find(std::string_view(close, sizeof close), at_ + 1);
        at_ = end == std::string_view::npos ? pattern_.size() : end + 2;
      }
    }
    at_ = std::min(at_ + 1, pattern_.size());
  }

  std::string_view pattern_;
  std::size_t at_ = 0;
  std::uint64_t finished_ = 0;                              // of the open group's elements, but for the last
  std::uint64_t last_ = 0;                                  // of the element that a repetition would repeat
  std::array<std::uint64_t, kMaxPatternDepth> outer_ = {};  // of the groups around
  std::size_t depth_ = 0;
};

}  // namespace

bool patternIsBounded(std::string_view pattern) noexcept {
  return pattern.size() <= kMaxPatternSize && pattern.find('\0') == std::string_view::npos &&
         PatternReader(pattern).isBounded();
}

}  // namespace engine
