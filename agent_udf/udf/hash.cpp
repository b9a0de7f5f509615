// SPDX-License-Identifier: Apache-2.0
//
// Digests and keyed digests of values.
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <string>

#include "conf/audit_event.h"
#include "frame/function.h"
#include "logw/logw.h"
#include "udf/policy_walk.h"

namespace {

// A digest that can be named in SQL, without regard to case.
struct Algorithm {
  std::string_view name;
  int id;                 // the engine's identifier
  unsigned int capacity;  // room for its Base64 text, as told to the encoder and as the result's max_length
};

constexpr Algorithm kAlgorithms[] = {
    {"SHA512", kHashSha512, 128},
    {"SHA1", kHashSha1, 64},
    {"SHA256", kHashSha256, 64},
    {"HAS160", kHashHas160, 64},
};
constexpr const Algorithm& kDefault = kAlgorithms[2];

constexpr unsigned int kDigestSize = 64;  // longest digest

const Algorithm* findAlgorithm(std::string_view name) {
  const auto* found = std::find_if(std::begin(kAlgorithms), std::end(kAlgorithms), [name](const Algorithm& algorithm) {
    return algorithm.name.size() == name.size() && strncasecmp(algorithm.name.data(), name.data(), name.size()) == 0;
  });
  return found == std::end(kAlgorithms) ? nullptr : found;
}

// The _init of a form that names the algorithm, in argument `Position`: the name must be a constant that is known.
// Returns null, or the message of the refusal.
template <unsigned int Position>
const char* prepareAlgorithm(const frame::Args& args, UDF_INIT& initid) {
  if (args.count() <= Position) {
    return nullptr;
  }
  const Algorithm* algorithm = findAlgorithm(args.text(Position));
  if (algorithm == nullptr) {
    return "Incorrect Algorithm Name";
  }
  initid.max_length = algorithm->capacity;
  initid.maybe_null = true;
  return nullptr;
}

// Calls of each function since its last deinit, from all connections. Every row counts: threads have shares of their
// own, on cache lines of their own, which deinit adds up. With one counter for all a row would cost twice as much as
// soon as two connections run.
enum Counter : unsigned int { kHashRaw, kHashB64, kHmacB64, kCounters };
constexpr unsigned int kShares = 64;
struct alignas(64) Share {
  std::atomic<unsigned int> calls[kCounters];
};
Share udfLogCount[kShares];

Share& shareOfThread() {
  static std::atomic<unsigned int> threads{0};
  static thread_local Share& mine = udfLogCount[threads.fetch_add(1, std::memory_order_relaxed) % kShares];
  return mine;
}

void count(Counter counter) {
  shareOfThread().calls[counter].fetch_add(1, std::memory_order_relaxed);
}

void reportCount(Counter counter, const char* function) {
  unsigned int calls = 0;
  for (Share& share : udfLogCount) {
    calls += share.calls[counter].exchange(0, std::memory_order_relaxed);
  }
  writeAuditEvent(
      kLogChange,
      {{"group", "status"}, {"udf", function}, {"number of hash", std::to_string(static_cast<int>(calls))}});
}

frame::Answer sqlNull(frame::Flags& flags) {
  flags.setNull();
  return frame::Answer::null();
}

const unsigned char* bytes(std::string_view data) {
  return reinterpret_cast<const unsigned char*>(data.data());
}

// A digest on its way into its Base64 text.
struct Digest {
  unsigned char value[kDigestSize];
  unsigned int length = 0;

  // Base64 of the digest in the server's buffer, or the empty text.
  frame::Answer inBase64(const Algorithm& algorithm, frame::ServerBuffer buffer) {
    char text[kCapacity];
    unsigned int written = 0;
    if (Q7_GetEncode64(text, algorithm.capacity, &written, value, static_cast<int>(length)) != 0) {
      written = 0;
    }
    return buffer.copy({text, written});
  }

 private:
  static constexpr unsigned int kCapacity = 128;
};

// HMAC of the data under every policy of that name, the last one's being the result. False when there is none or one
// fails.
bool keyedDigestOnce(PolicyWalk& policies, std::string_view data, std::string_view policy_name,
                     const Algorithm& algorithm, Digest& digest) {
  bool found = false;
  bool failed = false;
  policies.run(policy_name, [&](Q7EncPolicyInfo& policy, BCipherKey /*key*/) {
    found = true;
    failed = failed || kezuHmacBinary(digest.value, &digest.length, bytes(data), static_cast<unsigned int>(data.size()),
                                      algorithm.id, &policy) != 0;
  });
  return found && !failed && !policies.disturbed();
}

bool keyedDigest(std::string_view data, std::string_view policy_name, const Algorithm& algorithm, Digest& digest) {
  bool done = false;
  withPolicies([&](PolicyWalk& policies) {
    done = keyedDigestOnce(policies, data, policy_name, algorithm, digest);
    return done;
  });
  return done;
}

}  // namespace

// hash_raw_data(data) -> STRING: SHA-256 of the data, 32 bytes. NULL for NULL; empty when the digest fails.
KEZU_STRING_FUNCTION(hash_raw_data, {.forms = {"S"},
                                     .usage = "hash_raw_data_init('string data')",
                                     .max_length = 64,
                                     .start = frame::EngineStart::kOwn})
(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer) {
  if (args.isNull(0)) {
    return sqlNull(flags);
  }
  count(kHashRaw);
  const std::string_view data = args.text(0);
  Digest digest;
  if (kezuHashBinary(digest.value, &digest.length, bytes(data), static_cast<unsigned int>(data.size()), kHashSha256) !=
      0) {
    digest.length = 0;
  }
  return buffer.copy({reinterpret_cast<const char*>(digest.value), digest.length});
}
KEZU_DEINIT(hash_raw_data, reportCount(kHashRaw, "hash_raw_data"))

// hash_b64_data(data [, algorithm]) -> STRING: digest of the data in Base64, SHA-256 where no algorithm is named; SHA1,
// SHA256, SHA512 or HAS160, a constant. NULL for NULL; empty when the digest fails.
KEZU_STRING_FUNCTION(hash_b64_data,
                     {.forms = {"S", "SS"},
                      .usage = "hash_b64_data('string data') or hash_b64_data('string data','ALGORITHM')",
                      .sets_maybe_null = false,
                      .start = frame::EngineStart::kOwn,
                      .prepare = prepareAlgorithm<1>})
(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer) {
  if (args.isNull(0)) {
    return sqlNull(flags);
  }
  if (args.count() > 2) {
    return frame::Answer::null();
  }
  count(kHashB64);
  const std::string_view data = args.text(0);
  const Algorithm* algorithm = args.count() == 2 ? findAlgorithm(args.text(1)) : &kDefault;
  Digest digest;
  if (algorithm == nullptr || kezuHashBinary(digest.value, &digest.length, bytes(data),
                                             static_cast<unsigned int>(data.size()), algorithm->id) != 0) {
    return buffer.copy({});
  }
  return digest.inBase64(*algorithm, buffer);
}
KEZU_DEINIT(hash_b64_data, reportCount(kHashB64, "hash_b64_data"))

// hmac_b64_data(data, policy [, algorithm]) -> STRING: HMAC of the data in Base64, keyed by a policy; algorithms as in
// hash_b64_data. NULL for NULL; empty for an unknown policy and when the digest fails.
KEZU_STRING_FUNCTION(hmac_b64_data, {.forms = {"SS", "SSS"},
                                     .usage = "hash_raw_data_init('string data','policy id', 'algorithm')",
                                     .sets_maybe_null = false,
                                     .start = frame::EngineStart::kOwn,
                                     .prepare = prepareAlgorithm<2>,
                                     .after_start = [] { Q7_ReloadAllInfoIfChanged3(); }})
(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer) {
  if (args.isNull(0) || args.isNull(1)) {
    return sqlNull(flags);
  }
  const Algorithm* algorithm = args.count() == 3 ? findAlgorithm(args.text(2)) : &kDefault;
  if (args.count() > 3) {
    return frame::Answer::null();
  }
  if (algorithm == nullptr) {
    return buffer.copy({});
  }
  count(kHmacB64);
  Digest digest;
  if (!keyedDigest(args.text(0), args.text(1), *algorithm, digest)) {
    return buffer.copy({});
  }
  return digest.inBase64(*algorithm, buffer);
}
KEZU_DEINIT(hmac_b64_data, reportCount(kHmacB64, "hmac_b64_data"))
