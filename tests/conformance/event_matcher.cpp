// SPDX-License-Identifier: Apache-2.0
//
// The matcher of events, compiled once: a matcher of each number of texts in each file would be most of the compiler's
// work.
#include "fixture.h"

namespace conformance {
namespace {

MATCHER_P(EventAtLevel, level, "") {
  *result_listener << "level " << arg.level << ", nulls behind: " << arg.nulls_behind;
  return arg.level == level && arg.nulls_behind && arg.category == auditCategory();
}

}  // namespace

::testing::Matcher<const Event&> isEvent(int level, const std::vector<std::string>& texts) {
  return ::testing::AllOf(EventAtLevel(level), ::testing::Field(&Event::texts, ::testing::ElementsAreArray(texts)));
}

}  // namespace conformance
