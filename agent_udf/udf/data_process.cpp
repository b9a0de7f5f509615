// SPDX-License-Identifier: Apache-2.0
//
// Encrypting and decrypting single values under a named policy, and peeling off layers of encryption.
#include <algorithm>
#include <array>
#include <string_view>

#include "frame/function.h"
#include "frame/result_ring.h"
#include "udf/policy_walk.h"

namespace {

constexpr std::size_t kMaxResult = 8192;  // longest result in bytes; a longer one is SQL NULL
constexpr int kMaxRounds = 10;            // decryption rounds before giving up

// Output buffers have room for the padding that a cipher writes before it is known to be padding.
constexpr std::size_t kOutputSize = kMaxResult + 64;
using OutputRing = frame::ResultRing<kOutputSize>;

// Text that needs no decryption: bytes 33 to 127, tab, line feed, carriage return and space.
bool isPrintable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte >= 32 && byte <= 127) || byte == 9 || byte == 10 || byte == 13;
  });
}

frame::Answer sqlNull(frame::Flags& flags) {
  flags.setNull();
  return frame::Answer::null();
}

using EngineOperation = int (*)(unsigned char*, unsigned int*, const unsigned char*, unsigned int, Q7EncPolicyInfo*,
                                _BCipherKey*);

// Runs the engine's operation on `data`. Returns the length of the output in `out` (kOutputSize bytes), 0 for none, or
// a length above kMaxResult for an output that is too long.
std::size_t process(EngineOperation operation, std::string_view data, unsigned char* out, Q7EncPolicyInfo& policy,
                    BCipherKey key) {
  constexpr std::size_t kMaxEngineLength = 0x7FFFFFFF;
  if (data.size() > kMaxEngineLength) {
    return data.size();
  }
  unsigned int length = kOutputSize;
  operation(out, &length, reinterpret_cast<const unsigned char*>(data.data()), static_cast<unsigned int>(data.size()),
            &policy, key);
  return length;
}

// The output of the round before, as the input of the next.
class Layer {
 public:
  ~Layer() { OPENSSL_cleanse(bytes_.data(), used_); }

  std::string_view hold(const unsigned char* output, std::size_t length) {
    std::copy_n(output, length, bytes_.data());
    used_ = std::max(used_, length);
    return {reinterpret_cast<const char*>(bytes_.data()), length};
  }

 private:
  std::array<unsigned char, kMaxResult> bytes_;
  std::size_t used_ = 0;
};

// What decrypting a value over and over came to.
struct Peeled {
  int attempt = 1;         // rounds taken; kMaxRounds + 1 when none of them led to printable text
  std::size_t length = 0;  // bytes of the last round's output; above kMaxResult when it is too long
};

// Decrypts `data` under the named policy until the output is printable, kMaxRounds times at most. The last output
// stands in the ring's next buffer. A round without output counts like any other.
Peeled peelOnce(PolicyWalk& policies, std::string_view policy_name, std::string_view data, OutputRing& ring) {
  Peeled peeled;
  bool printable = false;
  Layer layer;
  unsigned char* out = ring.next();
  policies.run(policy_name, [&](Q7EncPolicyInfo& policy, BCipherKey key) {
    while (peeled.attempt <= kMaxRounds && peeled.length <= kMaxResult) {
      const std::string_view input = peeled.attempt == 1 ? data : layer.hold(out, peeled.length);
      peeled.length = process(Q7_DecryptBinaryExt, input, out, policy, key);
      ring.markSecret(std::min(peeled.length, kOutputSize));
      if (peeled.length != 0 && peeled.length <= kMaxResult) {
        printable = isPrintable({reinterpret_cast<const char*>(out), peeled.length});
      }
      if (printable) {
        return;
      }
      ++peeled.attempt;
    }
  });
  if (policies.disturbed()) {
    peeled.length = 0;
  }
  return peeled;
}

Peeled peel(std::string_view policy_name, std::string_view data, OutputRing& ring) {
  Peeled peeled;
  withPolicies([&](PolicyWalk& policies) {
    peeled = peelOnce(policies, policy_name, data, ring);
    return peeled.length != 0;
  });
  return peeled;
}

thread_local OutputRing check_str_results;
thread_local OutputRing check_int_results;
thread_local OutputRing po_ed_results;

}  // namespace

// data_process_ed_check_str(policy, data) -> STRING: the clear text of a value that was encrypted up to ten times.
// Printable data is returned as it is; after ten rounds without printable text the last round's output. Empty for an
// unknown policy or what does not decrypt; NULL for a NULL argument or a result above 8192 bytes.
KEZU_STRING_FUNCTION(data_process_ed_check_str, {.forms = {"SS"},
                                                 .usage = "data_process_ed_check_init('policyID','string_data')",
                                                 .max_length = kMaxResult,
                                                 .start = frame::EngineStart::kOwn})
(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer) {
  if (args.isNull(0) || args.isNull(1)) {
    return sqlNull(flags);
  }
  const std::string_view data = args.text(1);
  OutputRing& ring = check_str_results;
  if (isPrintable(data)) {
    if (data.size() > kMaxResult) {
      return sqlNull(flags);
    }
    std::copy(data.begin(), data.end(), ring.next());
    ring.markSecret(data.size());
    return ring.keep(data.size(), buffer);
  }
  const Peeled peeled = peel(args.text(0), data, ring);
  return peeled.length > kMaxResult ? sqlNull(flags) : ring.keep(peeled.length, buffer);
}

// data_process_ed_check_int(policy, data) -> INTEGER: how many layers of encryption a value has: 0 for printable data,
// 1 to 10, -1 when ten rounds do not lead to printable text. 1 for an unknown policy. NULL for a NULL argument or an
// output above 8192 bytes.
KEZU_INTEGER_FUNCTION(data_process_ed_check_int, {.forms = {"SS"},
                                                  .usage = "data_process_ed_check_init('policyID','string_data')",
                                                  .max_length = kMaxResult,
                                                  .start = frame::EngineStart::kOwn})
(const frame::Args& args, frame::Flags& flags) {
  if (args.isNull(0) || args.isNull(1)) {
    flags.setNull();
    return 0;
  }
  if (isPrintable(args.text(1))) {
    return 0;
  }
  OutputRing& ring = check_int_results;
  const Peeled peeled = peel(args.text(0), args.text(1), ring);
  ring.discard();
  if (peeled.length > kMaxResult) {
    flags.setNull();
    return 0;
  }
  return peeled.attempt > kMaxRounds ? -1 : peeled.attempt;
}

// data_process_po_ed(policy, mode, data) -> STRING: data encrypted (mode 0) or decrypted (any other mode) under a
// policy. Empty when there is no such policy or no output; NULL for a NULL argument or a result above 8192 bytes.
KEZU_STRING_FUNCTION(data_process_po_ed, {.forms = {"SIS"},
                                          .usage = "hash_raw_data_init('string data')",
                                          .max_length = kMaxResult,
                                          .start = frame::EngineStart::kOwn})
(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer) {
  if (args.isNull(0) || args.isNull(1) || args.isNull(2)) {
    return sqlNull(flags);
  }
  const bool decrypt = args.int32(1) != 0;
  OutputRing& ring = po_ed_results;
  std::size_t length = 0;
  withPolicies([&](PolicyWalk& policies) {
    unsigned char* out = ring.next();
    policies.run(args.text(0), [&](Q7EncPolicyInfo& policy, BCipherKey key) {
      length = process(decrypt ? Q7_DecryptBinaryExt : Q7_EncryptBinaryExt, args.text(2), out, policy, key);
      if (decrypt) {
        ring.markSecret(std::min(length, kOutputSize));
      }
    });
    if (policies.disturbed()) {
      length = 0;
    }
    return length != 0;
  });
  return length > kMaxResult ? sqlNull(flags) : ring.keep(length, buffer);
}
