// SPDX-License-Identifier: Apache-2.0
#include "engine/store/envelope.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "cipher/kdf.h"

namespace engine::store {
namespace {

constexpr std::string_view kMagic = "KEZUSEAL";
constexpr std::size_t kVersionOffset = 8;
constexpr std::size_t kNumberOffset = 10;
constexpr std::size_t kNameOffset = kNumberOffset + kKeyNumberSize;
constexpr std::size_t kNonceSize = 12;
constexpr std::size_t kTagSize = 16;
constexpr std::size_t kCheckDigits = 30;

struct ContextDeleter {
  void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, ContextDeleter>;

Error invalid(std::string reason) {
  return {Error::Kind::invalid, std::move(reason)};
}

// Everything in front of the nonce.
std::vector<unsigned char> headerOf(std::string_view table, const TableKeys& keys) {
  std::vector<unsigned char> header(kMagic.begin(), kMagic.end());
  header.push_back(static_cast<unsigned char>(kFormatVersion >> 8));
  header.push_back(static_cast<unsigned char>(kFormatVersion & 0xff));
  header.insert(header.end(), keys.number.begin(), keys.number.end());
  header.push_back(static_cast<unsigned char>(table.size()));
  header.insert(header.end(), table.begin(), table.end());
  return header;
}

// Why a file's header is not the one that this table's files have. The format's version decides first: what follows it
// may be laid out differently in a later one.
std::string headerFault(std::span<const unsigned char> file, std::string_view table, const TableKeys& keys) {
  if (file.size() < kNameOffset + 1 || !std::equal(kMagic.begin(), kMagic.end(), file.begin())) {
    return "is damaged or no configuration table";
  }
  const unsigned version = static_cast<unsigned>(file[kVersionOffset]) << 8 | file[kVersionOffset + 1];
  if (version != kFormatVersion) {
    return fmt::format("has format version {}, and this release reads version {}; use the release that wrote it",
                       version, kFormatVersion);
  }
  const auto name =
      file.subspan(kNameOffset + 1, std::min<std::size_t>(file[kNameOffset], file.size() - kNameOffset - 1));
  if (!std::equal(name.begin(), name.end(), table.begin(), table.end())) {
    return fmt::format("is damaged, or the file of another table in the place of table '{}'", table);
  }
  if (!std::equal(keys.number.begin(), keys.number.end(), file.begin() + kNumberOffset)) {
    return "is damaged, or was sealed with another master key";
  }
  return file.size() < kNameOffset + 1 + table.size() + kNonceSize + kTagSize ? "is cut short" : "";
}

bool encrypt(std::vector<unsigned char>& file, std::span<const unsigned char> payload, const TableKeys& keys) {
  const std::size_t prefix = file.size();
  const unsigned char* nonce = file.data() + prefix - kNonceSize;
  const Context context(EVP_CIPHER_CTX_new());
  int length = 0;
  if (!context || EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, keys.seal.bytes, nonce) != 1 ||
      EVP_EncryptUpdate(context.get(), nullptr, &length, file.data(), static_cast<int>(prefix)) != 1) {
    return false;
  }
  file.resize(prefix + payload.size() + kTagSize);
  unsigned char* out = file.data() + prefix;
  unsigned char* tag = out + payload.size();
  return EVP_EncryptUpdate(context.get(), out, &length, payload.data(), static_cast<int>(payload.size())) == 1 &&
         EVP_EncryptFinal_ex(context.get(), tag, &length) == 1 &&
         EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, kTagSize, tag) == 1;
}

bool decrypt(cipher::SecretBytes& payload, std::span<const unsigned char> file, std::size_t prefix,
             const TableKeys& keys) {
  const auto sealed = file.subspan(prefix, file.size() - prefix - kTagSize);
  const auto tag = file.last(kTagSize);
  const Context context(EVP_CIPHER_CTX_new());
  int length = 0;
  payload.resize(sealed.size() + kTagSize);  // room for what an EVP call may touch, and never null
  const bool opened =
      context &&
      EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, keys.seal.bytes,
                         file.data() + prefix - kNonceSize) == 1 &&
      EVP_DecryptUpdate(context.get(), nullptr, &length, file.data(), static_cast<int>(prefix)) == 1 &&
      EVP_DecryptUpdate(context.get(), payload.data(), &length, sealed.data(), static_cast<int>(sealed.size())) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, kTagSize, const_cast<unsigned char*>(tag.data())) ==
          1 &&
      EVP_DecryptFinal_ex(context.get(), payload.data() + sealed.size(), &length) == 1;
  payload.resize(opened ? sealed.size() : 0);
  return opened;
}

}  // namespace

bool deriveTableKeys(TableKeys& keys, std::span<const unsigned char> masterKey, std::string_view table) noexcept {
  try {
    return cipher::hkdfSha256(keys.seal.bytes, masterKey, fmt::format("kezu table seal {}", table)) &&
           cipher::hkdfSha256(keys.check.bytes, masterKey, fmt::format("kezu table check {}", table)) &&
           cipher::hkdfSha256(keys.number, masterKey, "kezu master key number");
  } catch (...) {
    return false;
  }
}

Result<std::vector<unsigned char>> sealPayload(std::span<const unsigned char> payload, std::string_view table,
                                               const TableKeys& keys) {
  std::vector<unsigned char> file = headerOf(table, keys);
  if (payload.size() > kMaxFileSize - file.size() - kNonceSize - kTagSize) {
    return invalid(fmt::format("is too large to be saved: the limit is {} bytes", kMaxFileSize));
  }
  file.resize(file.size() + kNonceSize);
  if (!cipher::randomBytes(std::span(file).last(kNonceSize)) || !encrypt(file, payload, keys)) {
    return invalid("cannot be sealed: OpenSSL failed");
  }
  return file;
}

Result<cipher::SecretBytes> openPayload(std::span<const unsigned char> file, std::string_view table,
                                        const TableKeys& keys) {
  if (std::string fault = headerFault(file, table, keys); !fault.empty()) {
    return invalid(std::move(fault));
  }
  cipher::SecretBytes payload;
  if (!decrypt(payload, file, kNameOffset + 1 + table.size() + kNonceSize, keys)) {
    return invalid("is damaged: it fails authentication");
  }
  return payload;
}

std::string fileCheckString(std::span<const unsigned char> payload, const TableKeys& keys) {
  std::array<unsigned char, cipher::kSha256Size> mac = {};
  std::string digits;
  if (cipher::hmacSha256(mac, keys.check.bytes, payload)) {
    for (std::size_t i = 0; i < kCheckDigits / 2; ++i) {
      fmt::format_to(std::back_inserter(digits), "{:02x}", mac[i]);
    }
  }
  return digits;
}

}  // namespace engine::store
