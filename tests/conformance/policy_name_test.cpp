// SPDX-License-Identifier: Apache-2.0
//
// Policy names, and finding a policy by its name.
#include "conf/policy.h"
#include "policy_fixture.h"

namespace conformance {
namespace {

int checkName(std::string name) {
  return Q7_CheckPolicyName(name);
}
int find(std::string name) {
  return findPolicy(name);
}

TEST(PolicyName, SixteenBytesAreAcceptedSeventeenAreNot) {
  EXPECT_EQ(checkName("Abcdefgh01234567"), 1);
  EXPECT_EQ(checkName("Abcdefgh012345678"), 0);
  EXPECT_EQ(checkName(std::string(100000, 'a')), 0);
}

TEST(PolicyName, EmptyNameIsAccepted) {
  EXPECT_EQ(checkName(""), 1);
}

TEST(PolicyName, OnlyAsciiLettersAndDigitsAreAccepted) {
  const std::string allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const int expected = allowed.find(c) != std::string::npos ? 1 : 0;
    EXPECT_EQ(checkName(std::string(1, c)), expected) << byte;
    EXPECT_EQ(checkName(std::string("a") + c), expected) << byte;
    EXPECT_EQ(checkName(c + std::string(15, 'z')), expected) << byte;
  }
}

TEST(PolicyName, CheckLeavesTheNameAsItIs) {
  std::string name = "Pol_1";
  Q7_CheckPolicyName(name);
  EXPECT_EQ(name, "Pol_1");
}

class FindPolicy : public Conformance {};

TEST_F(FindPolicy, EmptySlotHasNone) {
  EXPECT_EQ(find("p"), -1);
  EXPECT_EQ(find(""), -1);
}

TEST_F(FindPolicy, GivesTheIndexOfTheName) {
  for (const char* name : {"p0", "p1", "p2"}) {
    addPolicy(0, name);
  }
  EXPECT_EQ(find("p0"), 0);
  EXPECT_EQ(find("p1"), 1);
  EXPECT_EQ(find("p2"), 2);
  EXPECT_EQ(find("p3"), -1);
}

TEST_F(FindPolicy, ComparesWholeAndCaseSensitively) {
  addPolicy(0, "pol1");
  for (const std::string& name : {std::string("POL1"), std::string("pol"), std::string("pol11"), std::string(),
                                  bytes("pol1\0"), std::string(1000, 'p')}) {
    EXPECT_EQ(find(name), -1) << conformance::inQuotes(name).substr(0, 40);
  }
}

TEST_F(FindPolicy, FirstOfTwoEqualNamesIsFound) {
  addPolicy(0, "a");
  addPolicy(0, "b");
  addPolicy(0, "b");
  EXPECT_EQ(find("b"), 1);
}

TEST_F(FindPolicy, SearchesTheActiveSlotOnly) {
  addPolicy(0, "old");
  addPolicy(3, "other");
  addPolicy(3, "active");
  g_encPolicyArray_flag = 3;
  EXPECT_EQ(find("active"), 1);
  EXPECT_EQ(find("old"), -1);
}

TEST_F(FindPolicy, RecordsBehindTheCountAreNotFound) {
  addPolicy(0, "a");
  addPolicy(0, "b");
  g_numberOfEncPolicy[0] = 1;
  EXPECT_EQ(find("b"), -1);
}

TEST_F(FindPolicy, NameOf16BytesAndTheEmptyNameAreFound) {
  addPolicy(0, "0123456789abcdef");
  addPolicy(0, "");
  EXPECT_EQ(find("0123456789abcdef"), 0);
  EXPECT_EQ(find("0123456789abcde"), -1);
  EXPECT_EQ(find(""), 1);
}

TEST_F(FindPolicy, LastOf2000IsFound) {
  for (int i = 0; i < kMaxPolicies; ++i) {
    addPolicy(0, "p" + std::to_string(i), false);
  }
  EXPECT_EQ(find("p1999"), 1999);
  EXPECT_EQ(find("p2000"), -1);
}

}  // namespace
}  // namespace conformance
