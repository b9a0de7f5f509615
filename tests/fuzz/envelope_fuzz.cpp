// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as the file of a table, as a table's payload, and as what a file is sealed around.
//
//   1 byte   table
//   n bytes  file, payload
#include <numeric>
#include <vector>

#include "engine/store/envelope.h"
#include "engine/store/memory.h"
#include "fuzz/demand.h"
#include "fuzz/fuzz_home.h"
#include "fuzz/input.h"

namespace {

using cipher::SecretBytes;
using engine::store::Table;
using engine::store::TableKeys;
using fuzz::demand;

constexpr std::size_t kLongestReason = 300;  // bytes of an error's text

// A reason is short whatever it is about: it ends up in a log line and in a server's message.
template <typename Outcome>
bool accepted(const Outcome& outcome) {
  demand(outcome.ok() || (!outcome.error().text.empty() && outcome.error().text.size() <= kLongestReason),
         "an error has a reason, and a short one");
  return outcome.ok();
}

// Takes a payload for the table's, and returns the table's payload afterwards; empty where it was refused.
SecretBytes publish(const Table& table, const SecretBytes& payload) {
  const bool valid = accepted(table.check(payload));
  auto staged = table.stage(payload);
  demand(valid || !staged.ok(), "what is no payload is never loaded");
  if (!accepted(staged)) return {};
  staged.value()->publish();
  return table.capture();
}

// What was loaded can be saved, and what was saved can be loaded and is the same.
void checkPayload(const Table& table, const SecretBytes& payload) {
  const SecretBytes once = publish(table, payload);
  if (once.empty()) return;
  demand(publish(table, once) == once, "a table that was loaded is saved and loaded the same");
}

void checkFile(const Table& table, const TableKeys& keys, fuzz::Bytes file) {
  const auto payload = engine::store::openPayload(file, table.name(), keys);
  if (accepted(payload)) checkPayload(table, payload.value());
}

// What is sealed opens to itself; with any change, and for another table, it does not open.
void checkSeal(const Table& table, const TableKeys& keys, fuzz::Bytes payload) {
  const auto file = engine::store::sealPayload(payload, table.name(), keys);
  demand(file.ok(), "a payload can be sealed");
  const auto opened = engine::store::openPayload(file.value(), table.name(), keys);
  demand(opened.ok() && std::equal(opened.value().begin(), opened.value().end(), payload.begin(), payload.end()),
         "a sealed payload opens to itself");

  const std::size_t sum = std::accumulate(payload.begin(), payload.end(), payload.size());
  std::vector<unsigned char> changed = file.value();
  changed[sum % changed.size()] ^= static_cast<unsigned char>(1U << (sum % 8));
  demand(!accepted(engine::store::openPayload(changed, table.name(), keys)), "a changed bit is noticed");
  changed = file.value();
  changed.resize(sum % changed.size());
  demand(!accepted(engine::store::openPayload(changed, table.name(), keys)), "a cut is noticed");
  const std::string other = std::string(table.name()) + "x";
  demand(!accepted(engine::store::openPayload(file.value(), other, keys)), "the file of another table is noticed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  fuzz::Input input({data, size});
  const Table& table = *engine::store::allTables()[input.byte() % engine::store::kTableCount];
  const TableKeys& keys = fuzz::tableKeys(table);
  const fuzz::Bytes bytes = input.rest();
  checkFile(table, keys, bytes);
  checkPayload(table, SecretBytes(bytes.begin(), bytes.end()));
  checkSeal(table, keys, bytes);
  return 0;
}
