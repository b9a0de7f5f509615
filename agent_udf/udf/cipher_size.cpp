// SPDX-License-Identifier: Apache-2.0
//
// How large a column must be to hold encrypted values, and making the engine look at its files.
#include <cstdio>
#include <string>

#include "frame/function.h"
#include "kezu/engine.h"

namespace {

constexpr std::size_t kErrorText = 2048;  // at least the 256 bytes that the engine asks for
constexpr int kNumericColumn = -1;        // sizes that ask a question instead
constexpr int kBlobColumn = -2;

void reload() {
  Q7_ReloadAllInfoIfChanged3();
}

}  // namespace

// getcolumnsizebyotc_kezu(database, table, column, size) -> INTEGER: bytes of an encrypted value of `size` bytes in a
// registered column. Size -1 asks whether numeric columns can be encrypted under its policy, -2 whether large objects
// can (1 or 0). 0 for size 0 and for a column that is not registered; -1 when the size cannot be computed, with a line
// on standard error.
KEZU_INTEGER_FUNCTION(getcolumnsizebyotc_kezu,
                      {.forms = {"SSSI"},
                       .usage = "getcolumnsizebyotc_kezu('Database', 'Table', 'Column', Column size)",
                       .sets_maybe_null = false,
                       .start = frame::EngineStart::kOwn,
                       .after_start = reload})
(const frame::Args& args, frame::Flags& /*flags*/) {
  const int size = args.int32(3);
  if (size == 0) {
    return 0;
  }
  std::string database(args.text(0));
  std::string table(args.text(1));
  std::string column(args.text(2));
  char policy[sizeof Q7EncColumnInfo::policyID];
  char error[kErrorText];
  if (kezuGetEncPolicyId(database.data(), table.data(), column.data(), policy, error) != 0) {
    return 0;
  }
  if (size == kNumericColumn) {
    return checkNumericEnc(policy);
  }
  if (size == kBlobColumn) {
    return checkBlobEnc(policy);
  }
  int cipher_size = 0;
  error[0] = '\0';
  if (kezuGetCipherSize(size, policy, &cipher_size, error) != 0) {
    std::fprintf(stderr, "get encrypt size error: %s", error);
    return -1;
  }
  return cipher_size;
}

// reload_kezu() -> INTEGER: has the engine read the configuration files that changed, when the statement is prepared.
// 0.
KEZU_INTEGER_FUNCTION(reload_kezu, {.any_arguments = true,
                                    .sets_maybe_null = false,
                                    .start = frame::EngineStart::kOwn,
                                    .after_start = reload})
(const frame::Args& /*args*/, frame::Flags& /*flags*/) {
  return 0;
}
