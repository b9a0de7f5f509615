// SPDX-License-Identifier: Apache-2.0
//
// Adds a policy with a column key of the caller's choice to a home. SQL has no way to choose one, and a test that
// computes on its own what a server is to return has to know it.
//
//   add_policy HOME NAME KEY     KEY in hexadecimal, 1 to 64 bytes; the policy is AES256 in CBC mode
//
// Exit status 0 when the policy is in the home, else 1, with the reason on standard error.
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "engine/store/store.h"
#include "kezu/engine.h"

namespace {

namespace store = engine::store;

constexpr int kAes256 = 2;
constexpr int kCbc = 1;

std::vector<unsigned char> fromHex(const std::string& digits) {
  std::vector<unsigned char> bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

// The value of a result, or its error thrown.
template <typename T>
T valueOf(store::Result<T> result) {
  if (!result.ok()) throw std::runtime_error(result.error().text);
  return std::move(result.value());
}

void require(const store::Status& status) {
  if (!status.ok()) throw std::runtime_error(status.error().text);
}

// Adds to the active slot in place: nobody else reads it in this process.
void addPolicy(const std::string& name, std::vector<unsigned char> key) {
  const int slot = g_encPolicyArray_flag;
  int& count = g_numberOfEncPolicy[slot];
  if (count >= kMaxPolicies ||
      Q7_AddPolicyInfo(g_encPolicyArray[slot][count], &g_makeKeyArray[slot][count], name.c_str(), kAes256, 0,
                       key.data(), static_cast<unsigned int>(key.size()), 0, 0, kCbc, 0, "") == 0) {
    throw std::runtime_error("the policy cannot be made");
  }
  ++count;
}

void addToHome(const std::string& home, const std::string& name, const std::string& key) {
  const auto opened =
      valueOf(store::Store::open(store::machineFiles(), valueOf(store::openHome(store::machineFiles(), home))));
  require(opened->loadAll());
  addPolicy(name, fromHex(key));
  require(opened->save(store::TableId::policy));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: add_policy HOME NAME KEY\n", stderr);
    return 1;
  }
  try {
    addToHome(argv[1], argv[2], argv[3]);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "add_policy: %s\n", e.what());
    return 1;
  }
  return 0;
}
