// SPDX-License-Identifier: Apache-2.0
//
// Keys of configuration homes, the same in every run, so that sealed files can stand in a corpus.
#pragma once

#include <array>
#include <map>
#include <numeric>
#include <string_view>

#include "engine/store/envelope.h"
#include "engine/store/memory.h"
#include "fuzz/demand.h"

namespace fuzz {

// 32 bytes, 00 to 1f.
inline constexpr const char* kMasterKeyText = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n";

inline const engine::store::TableKeys& tableKeys(const engine::store::Table& table) {
  static std::map<std::string_view, engine::store::TableKeys> all;
  const auto [place, isNew] = all.try_emplace(table.name());
  if (isNew) {
    std::array<unsigned char, engine::store::kMasterKeySize> master;
    std::iota(master.begin(), master.end(), static_cast<unsigned char>(0));
    demand(engine::store::deriveTableKeys(place->second, master, table.name()), "keys can be derived");
  }
  return place->second;
}

}  // namespace fuzz
