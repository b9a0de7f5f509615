// SPDX-License-Identifier: Apache-2.0
//
// How an event reaches the logging library, whichever function writes it.
#include "conf/audit_event.h"

#include <utility>

#include "fixture.h"

namespace conformance {
namespace {

class AuditEvent : public LoggedIn {
 protected:
  static IntegerResult registerColumn(std::string_view owner) {
    return call(kezu_conf_set_column, {kSession, owner, "t", "c", "p"});
  }
};

TEST_F(AuditEvent, CategoryIsLookedUpAfreshForEveryEvent) {
  registerColumn("a");
  registerColumn("b");
  const std::string number = std::to_string(kAuditCategoryNumber);
  EXPECT_EQ(engine.calls("logwCategory").size(), 2U);
  EXPECT_THAT(engine.calls("lw_get_category"),
              ElementsAre("lw_get_category(" + number + ")", "lw_get_category(" + number + ")"));
  EXPECT_EQ(engine.events().size(), 2U);
}

TEST_F(AuditEvent, ReachesTheLogUnderTheCategorysHandle) {
  registerColumn("a");
  ASSERT_EQ(engine.events().size(), 1U);
  EXPECT_EQ(engine.events()[0].category, auditCategory());
}

TEST_F(AuditEvent, TwoPairsAreExactlyFourPointersThenNulls) {
  call(kezu_conf_get_auth, {kSession});
  ASSERT_EQ(engine.events().size(), 1U);
  EXPECT_EQ(engine.events()[0].texts.size(), 4U);
  EXPECT_TRUE(engine.events()[0].nulls_behind);
}

TEST_F(AuditEvent, LostEventDoesNotChangeTheResult) {
  engine.answer("lw_log", -1);
  EXPECT_EQ(registerColumn("a"), value(1));
  EXPECT_EQ(call(kezu_conf_get_auth, {kSession}), value(kStart));
}

TEST_F(AuditEvent, MissingCategoryIsHandedOnAndDoesNotChangeTheResult) {
  engine.answer("lw_get_category", 1);
  EXPECT_EQ(registerColumn("a"), value(1));
  ASSERT_EQ(engine.events().size(), 1U);
  EXPECT_EQ(engine.events()[0].category, nullptr);
}

TEST_F(AuditEvent, TextsOfAnyBytesReachTheLogAsTheyAre) {
  const std::string owner = "d\xC3\xA9 'b' \"x\"\n\\ \x80\xFF";
  registerColumn(owner);
  EXPECT_THAT(engine.events(), ElementsAre(IsEvent(2, "group", "policy", "owner", owner, "table", "t", "column", "c",
                                                   "policy", "p", "desc", "SET COLUMN")));
}

template <std::size_t... I>
void writeTexts(std::index_sequence<I...> /*numbers*/) {
  writeAuditTexts(2, {std::to_string(I)...});
}

TEST_F(AuditEvent, EventOfNoTextsIsOnlyNulls) {
  writeAuditTexts(2, {});
  EXPECT_THAT(engine.events(), ElementsAre(IsEvent(2)));
}

TEST_F(AuditEvent, TextsPastThe1023rdAreLeftOut) {
  writeTexts(std::make_index_sequence<1022>());
  writeTexts(std::make_index_sequence<1023>());
  writeTexts(std::make_index_sequence<1024>());
  writeTexts(std::make_index_sequence<1100>());
  ASSERT_EQ(engine.events().size(), 4U);
  EXPECT_EQ(engine.events()[0].texts.size(), 1022U);
  for (std::size_t i = 1; i < 4; ++i) {
    const Event event = engine.events()[i];
    EXPECT_EQ(event.texts.size(), 1023U);
    EXPECT_EQ(event.texts.back(), "1022");
    EXPECT_TRUE(event.nulls_behind);
  }
}

}  // namespace
}  // namespace conformance
