// SPDX-License-Identifier: Apache-2.0
//
// How a row finds its policy: by a name that is compared in words, and first where the thread found it last.
#include <thread>
#include <utility>

#include "every_function.h"
#include "policy_fixture.h"
#include "udf/policy_name.h"
#include "udf/policy_walk.h"

namespace conformance {
namespace {

// Compared as text, and by words: with every record that differs in one byte of the name's field.
TEST(PolicyNames, AreComparedAsTexts) {
  const std::string letters = "abcdefghijklmnopqrs";
  for (std::size_t length = 0; length <= 18; ++length) {
    const std::string text = letters.substr(0, length);
    const PolicyName name(text);
    Q7EncPolicyInfo record{};
    record.algID = -1;
    text.copy(record.policyID, sizeof record.policyID);
    for (std::size_t at = 0; at < sizeof record.policyID; ++at) {
      for (const char byte : {'\0', 'a', 'x', '\xFF'}) {
        Q7EncPolicyInfo other = record;
        other.policyID[at] = byte;
        EXPECT_EQ(name.isOf(other), kezu::fieldEquals(other.policyID, text)) << length << " " << at << " " << byte;
      }
    }
  }
}

TEST(PolicyNames, WithAZeroInsideAreNobodys) {
  Q7EncPolicyInfo record{};
  for (const std::string_view text :
       {std::string_view("\0", 1), std::string_view("a\0", 2), std::string_view("a\0b", 3)}) {
    record.policyID[0] = text[0];
    EXPECT_FALSE(PolicyName(text).isOf(record));
  }
}

class Walk : public Conformance {
 protected:
  // The places of the policies that a walk uses, in order.
  static std::vector<int> found(std::string_view name) {
    std::vector<int> places;
    PolicyWalk walk;
    walk.run(name, [&places](const Q7EncPolicyInfo& policy, BCipherKey key) {
      const auto place = &policy - &g_encPolicyArray[0][0];
      EXPECT_EQ(key, g_makeKeyArray[place / kMaxPolicies][place % kMaxPolicies]);
      places.push_back(static_cast<int>(place));
    });
    EXPECT_FALSE(walk.disturbed());
    return places;
  }
  static int at(int slot, int index) { return slot * kMaxPolicies + index; }
};

TEST_F(Walk, FindsThePolicyWhereItMovesTo) {
  addPolicy(0, "other");
  addPolicy(0, "p");
  EXPECT_THAT(found("p"), ElementsAre(at(0, 1)));
  addPolicy(1, "p");
  addPolicy(1, "other");
  g_encPolicyArray_flag = 1;
  EXPECT_THAT(found("p"), ElementsAre(at(1, 0)));
  EXPECT_THAT(found("other"), ElementsAre(at(1, 1)));
  // The slot comes round again with as many policies in another order.
  g_numberOfEncPolicy[0] = 0;
  addPolicy(0, "p");
  addPolicy(0, "other");
  g_encPolicyArray_flag = 0;
  EXPECT_THAT(found("p"), ElementsAre(at(0, 0)));
  EXPECT_THAT(found("other"), ElementsAre(at(0, 1)));
}

TEST_F(Walk, FindsNoPolicyThatIsGone) {
  addPolicy(0, "p");
  EXPECT_THAT(found("p"), ElementsAre(at(0, 0)));
  addPolicy(1, "other");
  g_encPolicyArray_flag = 1;
  EXPECT_THAT(found("p"), ElementsAre());
  g_encPolicyArray_flag = 0;
  g_numberOfEncPolicy[0] = 0;
  EXPECT_THAT(found("p"), ElementsAre());
}

TEST_F(Walk, FindsAllOfANameThatBecomesTwoPolicies) {
  addPolicy(0, "a");
  addPolicy(0, "p");
  EXPECT_THAT(found("p"), ElementsAre(at(0, 1)));
  addPolicy(0, "p");
  EXPECT_THAT(found("p"), ElementsAre(at(0, 1), at(0, 2)));
  EXPECT_THAT(found("p"), ElementsAre(at(0, 1), at(0, 2)));
  // A slot that comes round with as many policies has other keys.
  g_numberOfEncPolicy[0] = 0;
  addPolicy(0, "p");
  addPolicy(0, "q");
  EXPECT_THAT(found("p"), ElementsAre(at(0, 0)));
  g_numberOfEncPolicy[0] = 0;
  addPolicy(0, "p");
  addPolicy(0, "p");
  EXPECT_THAT(found("p"), ElementsAre(at(0, 0), at(0, 1)));
}

// More names than there are hints for.
TEST_F(Walk, FindsEachOfAFullTable) {
  for (int i = 0; i < kMaxPolicies; ++i) {
    addPolicy(0, "policy" + std::to_string(i), false);
  }
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < kMaxPolicies; ++i) {
      ASSERT_THAT(found("policy" + std::to_string(i)), ElementsAre(at(0, i)));
    }
  }
}

TEST_F(Walk, EachThreadFindsItsOwnWay) {
  addPolicy(0, "p");
  EXPECT_THAT(found("p"), ElementsAre(at(0, 0)));
  std::thread([] { EXPECT_THAT(found("p"), ElementsAre(at(0, 0))); }).join();
}

// What came of a policy that was replaced while it was used is worth nothing, whichever part of it was seen first.
TEST_F(Walk, IsDisturbedByAPolicyThatIsReplaced) {
  for (const bool known : {false, true}) {
    addPolicy(0, "p");
    if (known) {
      found("p");
    }
    for (const bool renamed : {false, true}) {
      PolicyWalk walk;
      walk.run("p", [renamed](Q7EncPolicyInfo& policy, BCipherKey /*key*/) {
        if (renamed) {
          setField(policy.policyID, "q");
        } else {
          g_makeKeyArray[0][0] = RecordingEngine::get().makeKey("another");
        }
      });
      EXPECT_TRUE(walk.disturbed()) << known << renamed;
      EXPECT_TRUE(walk.overtaken());
    }
    g_numberOfEncPolicy[0] = 0;
  }
}

// With both the encrypting and the peeling functions: the first output is made while the policy is replaced.
TEST_F(Walk, ResultsOfAReplacedPolicyAreTakenUpAgain) {
  addPolicy(0, "p");
  bool replaced = false;
  const auto replaceOnce = [this, &replaced] {
    if (!std::exchange(replaced, true)) {
      g_makeKeyArray[0][0] = engine.makeKey("new key of p");
    }
  };
  engine.onCall("Q7_EncryptBinaryExt", replaceOnce);
  engine.onCall("Q7_DecryptBinaryExt", replaceOnce);
  const std::vector<CipherAnswer> answers = {CipherAnswer::text("under the old key"),
                                             CipherAnswer::text("under the new key")};
  engine.answerCipher(answers);
  EXPECT_EQ(call(data_process_po_ed, Arguments{"p"}.number(0).text("x")).text(), "under the new key");
  replaced = false;
  engine.answerCipher(answers);
  EXPECT_EQ(call(data_process_ed_check_str, {"p", "\x90"}).text(), "under the new key");
  replaced = false;
  engine.answerCipher({CipherAnswer::text("under the old key"), CipherAnswer::text("\x90"), answers[1]});
  EXPECT_EQ(call(data_process_ed_check_int, {"p", "\x90"}), value(2));
}

TEST_F(Walk, ResultsOfPoliciesWithoutRestAreEmpty) {
  addPolicy(0, "p");
  const auto replace = [this] { g_makeKeyArray[0][0] = engine.makeKey("new key of p"); };
  engine.onCall("Q7_EncryptBinaryExt", replace);
  engine.onCall("Q7_DecryptBinaryExt", replace);
  engine.onCall("kezuHmacBinary", replace);
  EXPECT_EQ(call(data_process_po_ed, Arguments{"p"}.number(0).text("x")).text(), "");
  EXPECT_EQ(call(data_process_ed_check_str, {"p", "\xE9\xE9"}).text(), "");
  EXPECT_EQ(call(hmac_b64_data, {"x", "p"}).text(), "");
}

}  // namespace
}  // namespace conformance
