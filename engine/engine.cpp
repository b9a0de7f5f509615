// SPDX-License-Identifier: Apache-2.0
//
// The exported operations on the configuration: start, load, reload and save. They share one store under one lock,
// which no operation on a row's path takes. The guard of changes, where it is needed, is taken before that lock.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "cipher/hidden_memory.h"
#include "engine/kms/kms.h"
#include "engine/policy/policy_slots.h"
#include "engine/store/store.h"
#include "kezu/change.h"
#include "kezu/engine.h"
#include "kezu/shared.h"
#include "logging/log_config.h"
#include "logw/logw.h"

namespace {

using engine::store::Error;
using engine::store::Status;
using engine::store::Store;
using engine::store::TableId;

struct Engine {
  std::mutex mutex;
  std::unique_ptr<Store> store;  // null until the engine runs
  std::string fault;             // what the last start or reload failed with, empty when it succeeded
  unsigned long fetches = 0;     // fetches of policies that were begun, the number of the last one
  unsigned long fetched = 0;     // number of the fetch whose policies were published last
};

// Whether the engine runs, for callers that only want to know that.
constinit std::atomic<bool> running{false};

// Never destroyed: connection threads may still call while the process ends.
Engine& shared() {
  static auto* const instance = new Engine;
  return *instance;
}

void report(const std::string& text) {
  const char* const messages[] = {"group", "status", "desc", text.c_str(), nullptr};
  lw_log(lw_get_category(logwCategory()), kLogFailure, messages);
}

// Starts and reloads happen with every statement: a failure that lasts is reported once.
void reportOnce(Engine& engine, const std::string& text) {
  if (engine.fault != text) {
    engine.fault = text;
    report(text);
  }
}

// Runs the body of an exported operation. Nothing thrown leaves it; `failure` is returned instead.
template <typename Body>
int guarded(int failure, const Body& body) noexcept {
  try {
    Engine& engine = shared();
    const std::lock_guard lock(engine.mutex);
    return body(engine);
  } catch (...) {
    return failure;
  }
}

// The same for one that replaces or captures whole tables: not in the middle of another thread's change.
template <typename Body>
int betweenChanges(int failure, const Body& body) noexcept {
  const kezu::ConfigurationChange change;
  return guarded(failure, body);
}

Status start(Engine& engine) {
  auto home = engine::store::openHome(engine::store::machineFiles(), engine::store::configuredHome());
  if (!home.ok()) {
    return home.error();
  }
  logging::setLogDirectory(home.value().log);
  auto store = Store::open(engine::store::machineFiles(), std::move(home.value()));
  if (!store.ok()) {
    return store.error();
  }
  cipher::hideFromDumps(g_encPolicyArray, sizeof g_encPolicyArray);
  cipher::hideFromDumps(g_userInfo, sizeof g_userInfo);
  if (Status status = store.value()->loadAll(); !status.ok()) {
    return status;
  }
  engine.store = std::move(store.value());
  return {};
}

void giveText(char* out, std::size_t capacity, std::string_view text) noexcept {
  if (out != nullptr) {
    const std::size_t length = std::min(text.size(), capacity - 1);
    std::memcpy(out, text.data(), length);
    out[length] = '\0';
  }
}

// What the server shows of a message: it cuts it after 80 bytes. So that path and reason both show, a path that is
// longer than its share keeps its end only.
std::string forServer(const std::string& text) {
  constexpr std::size_t kPathShare = 36;
  const std::size_t path = text.find(": ");
  if (path == std::string::npos || path <= kPathShare) {
    return text;
  }
  return "..." + text.substr(path - kPathShare + 3);
}

// Takes policies that were fetched into use. The caller holds the lock. A fetch that was begun later and ended earlier
// has the newer policies: those stay.
void take(Engine& engine, engine::PreparedPolicies& policies, unsigned long number) {
  if (number > engine.fetched) {
    engine.fetched = number;
    policies.publish();
  }
}

int fetchFailed(const Error& error) {
  report("No policies were fetched: " + error.text);
  return -1;
}

// Policies that are kept in memory only come from the server at every start. Without an answer the engine runs, with no
// policies: kezu_conf_get_policy_for_kms() tries again.
void fetchAtStart(Engine& engine) noexcept {
  if (kezu::observe(g_kmsMode) != Q7_ONLY_KMS_MODE) {
    return;
  }
  try {
    auto policies = engine::kms::fetchPolicies(engine.store->files(), engine.store->home().directory);
    if (policies.ok()) {
      take(engine, policies.value(), ++engine.fetches);
    } else {
      fetchFailed(policies.error());
    }
  } catch (...) {  // out of memory: as without an answer
  }
}

// The same while the engine runs: neither the lock nor the guard of changes is held while the server is waited for.
int fetchPolicies(Engine& engine) {
  std::unique_lock lock(engine.mutex);
  if (!engine.store) {
    return -1;
  }
  const Q7KmsMode mode = kezu::observe(g_kmsMode);
  if (mode == Q7_NO_KMS_MODE) {
    return fetchFailed({Error::Kind::invalid, "policies are local in this key-server mode"});
  }
  const unsigned long number = ++engine.fetches;
  engine::store::FileSystem& files = engine.store->files();
  const std::string directory = engine.store->home().directory;
  lock.unlock();
  auto policies = engine::kms::fetchPolicies(files, directory);
  const kezu::ConfigurationChange change;
  lock.lock();
  if (!policies.ok()) {
    return fetchFailed(policies.error());
  }
  if (kezu::observe(g_kmsMode) != mode) {
    return fetchFailed({Error::Kind::conflict, "the key-server mode was changed in the meantime"});
  }
  take(engine, policies.value(), number);
  return 0;
}

int initialize(Engine& engine, unsigned int mode, char* message) {
  if (mode != 1) {
    giveText(message, kInitMessageSize, fmt::format("The engine has no mode {}.", mode));
    return 1;
  }
  if (engine.store) {
    return 0;
  }
  if (Status status = start(engine); !status.ok()) {
    giveText(message, kInitMessageSize, forServer(status.error().text));
    const std::string report = "The engine did not start: " + status.error().text;
    if (engine.fault != report) {
      // The server's error log has it whole, also where there is no audit log yet.
      std::fprintf(stderr, "kezu: %s\n", report.c_str());
    }
    reportOnce(engine, report);
    return 1;
  }
  engine.fault.clear();
  fetchAtStart(engine);
  running.store(true, std::memory_order_release);
  return 0;
}

template <typename Reload>
int reload(const Reload& operation) noexcept {
  return betweenChanges(-1, [&operation](Engine& engine) {
    if (!engine.store) {
      return -1;
    }
    if (Status status = operation(*engine.store); !status.ok()) {
      reportOnce(engine, "Reload failed: " + status.error().text);
      return -1;
    }
    engine.fault.clear();
    return 0;
  });
}

// What a save operation returns when it fails.
struct SaveCodes {
  int failure;
  int conflict;
};

int save(TableId id, SaveCodes codes) noexcept {
  return betweenChanges(codes.failure, [id, codes](Engine& engine) {
    if (!engine.store) {
      return codes.failure;
    }
    if (id == TableId::policy) {
      engine::forgetDiscardedPolicies();
    }
    Store& store = *engine.store;
    const Status status = store.save(id);
    if (status.ok()) {
      return 0;
    }
    report("Save failed: " + status.error().text);
    return status.error().kind == Error::Kind::conflict ? codes.conflict : codes.failure;
  });
}

}  // namespace

extern "C" {

int kezuInitialize(unsigned int mode, char* scratch, char* message) {
  giveText(scratch, kInitScratchSize, KEZU_VERSION);
  if (mode == 1 && running.load(std::memory_order_acquire)) {
    return 0;
  }
  const int result = guarded(-1, [mode, message](Engine& engine) { return initialize(engine, mode, message); });
  if (result < 0) {
    giveText(message, kInitMessageSize, "The engine did not start: out of memory.");
  }
  return result;
}

int Q7_ReloadAllInfoIfChanged() {
  return reload([](Store& store) { return store.reloadChanged(); });
}

int Q7_ReloadAllInfoIfChanged3() {
  return Q7_ReloadAllInfoIfChanged();
}

int Q7_LoadPolicyInfo(const char* source) {
  return reload([source](Store& store) { return store.load(TableId::policy, source == nullptr ? "" : source); });
}

int Q7_LoadTableInfo() {
  return reload([](Store& store) { return store.reloadChanged(TableId::tableInfo); });
}

int Q7_SavePolicyInfo() {
  return save(TableId::policy, {.failure = -1, .conflict = -3});
}
int Q7_SaveColumnInfo() {
  return save(TableId::column, {.failure = -1, .conflict = 1});
}
int Q7_SaveAccessPrivInfo() {
  return save(TableId::access, {.failure = -1, .conflict = -1});
}
int Q7_SaveEncPrivInfo() {
  return save(TableId::privilege, {.failure = -1, .conflict = -1});
}
int Q7_SaveQueryPrivInfo() {
  return save(TableId::queryPriv, {.failure = 1, .conflict = 1});
}
int Q7_SaveTableInfo() {
  return save(TableId::tableInfo, {.failure = -1, .conflict = -1});
}
int Q7_SaveUserInfo() {
  return save(TableId::user, {.failure = -1, .conflict = -1});
}

int Q7_GetPolicyInfoFromKMS() {
  try {
    return fetchPolicies(shared());
  } catch (...) {
    return -1;
  }
}

int compareLocalAndKMSPolicy() {
  return betweenChanges(-1, [](Engine& engine) {
    if (!engine.store) {
      return -1;
    }
    const auto answer = engine::kms::compareWithFile(*engine.store);
    if (!answer.ok()) {
      report(answer.error().text);
      return -1;
    }
    return static_cast<int>(answer.value());
  });
}

}  // extern "C"
