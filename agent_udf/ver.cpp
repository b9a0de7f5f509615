// SPDX-License-Identifier: Apache-2.0
//
// The build's version: as data for tools that load the library, and as a name in its symbol table.
#define KEZU_VISIBLE __attribute__((visibility("default")))

extern "C" {
KEZU_VISIBLE extern const char* kezu_agent_udf_major_version;
KEZU_VISIBLE extern const char* kezu_agent_udf_minor_version;
const char* kezu_agent_udf_major_version = "2.3.2.0";
const char* kezu_agent_udf_minor_version = "21735";
}

namespace kezu_tags_Orvanta_2_3_2_0_agent_udf {
KEZU_VISIBLE void version_2_3_2_0_21735();
void version_2_3_2_0_21735() {}
}  // namespace kezu_tags_Orvanta_2_3_2_0_agent_udf
