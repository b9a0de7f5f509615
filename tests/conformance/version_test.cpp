// SPDX-License-Identifier: Apache-2.0
//
// The build's version as tools read it.
#include <gtest/gtest.h>

#include "udf_functions.h"

TEST(Version, MajorVersionIsTheProductsVersion) {
  EXPECT_STREQ(kezu_agent_udf_major_version, "2.3.2.0");
}

TEST(Version, MinorVersionIsTheBuildNumber) {
  EXPECT_STREQ(kezu_agent_udf_minor_version, "21735");
}

TEST(Version, TagFunctionIsInTheSymbolTable) {
  EXPECT_NO_THROW(kezu_tags_Orvanta_2_3_2_0_agent_udf::version_2_3_2_0_21735());
}
