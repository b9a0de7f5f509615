// SPDX-License-Identifier: Apache-2.0
#include "engine/store/kms_settings.h"

#include <fmt/format.h>

#include <cmath>

#include "engine/store/toml_values.h"

namespace engine::store {
namespace {

constexpr std::size_t kMaxHost = 255;  // bytes of a host name, RFC 1035

// One setting at a time, by its name.
class KmsReader {
 public:
  KmsReader(const std::string& source, const std::string& directory, KmsSettings& kms)
      : source_(source), directory_(directory), kms_(kms) {}

  Status read(const std::string& name, const toml::key& key, const toml::node& value) {
    if (name == "host") return text(name, value, kMaxHost, kms_.host);
    if (name == "port") return port(value);
    if (name == "ca") return readPath(value, source_, "kms.ca", directory_, kms_.ca);
    if (name == "certificate") return readPath(value, source_, "kms.certificate", directory_, kms_.certificate);
    if (name == "key") return readPath(value, source_, "kms.key", directory_, kms_.key);
    if (name == "connect_timeout") return seconds(name, value, kms_.connectTimeout);
    if (name == "read_timeout") return seconds(name, value, kms_.readTimeout);
    if (name == "object_group") return text(name, value, kKmsMaxObjectGroup, kms_.objectGroup);
    return invalidSetting(source_, key.source(), "unknown setting 'kms." + name + "'");
  }

 private:
  Status text(const std::string& name, const toml::node& value, std::size_t limit, std::string& out) {
    const auto text = value.value_exact<std::string>();
    if (!text || text->empty() || text->size() > limit || text->find('\0') != std::string::npos) {
      return invalidSetting(source_, value.source(),
                            fmt::format("'kms.{}' must be a text in quotes, of 1 to {} bytes", name, limit));
    }
    out = *text;
    return {};
  }

  Status port(const toml::node& value) {
    const auto number = value.value_exact<std::int64_t>();
    if (!number || *number < 1 || *number > 65535) {
      return invalidSetting(source_, value.source(), "'kms.port' must be a number from 1 to 65535");
    }
    kms_.port = static_cast<int>(*number);
    return {};
  }

  Status seconds(const std::string& name, const toml::node& value, std::chrono::milliseconds& out) {
    const auto number = value.is_number() ? value.value<double>() : std::nullopt;
    const double milliseconds = number ? std::round(*number * 1000) : std::nan("");
    if (!(milliseconds >= static_cast<double>(kKmsShortestTimeout.count()) &&
          milliseconds <= static_cast<double>(kKmsLongestTimeout.count()))) {
      return invalidSetting(source_, value.source(), "'kms." + name + "' must be seconds, from 0.01 to 3600");
    }
    out = std::chrono::milliseconds(static_cast<std::int64_t>(milliseconds));
    return {};
  }

  const std::string& source_;
  const std::string& directory_;
  KmsSettings& kms_;
};

}  // namespace

Status readKms(const toml::table& table, const std::string& source, const std::string& directory, KmsSettings& kms) {
  KmsReader reader(source, directory, kms);
  for (const auto& [key, value] : table) {
    if (Status status = reader.read(std::string(key.str()), key, value); !status.ok()) {
      return status;
    }
  }
  for (const auto& [name, value] :
       {std::pair{"host", &kms.host}, {"ca", &kms.ca}, {"certificate", &kms.certificate}, {"key", &kms.key}}) {
    if (value->empty()) {
      return invalidSetting(source, table.source(), fmt::format("'kms.{}' is missing", name));
    }
  }
  return {};
}

}  // namespace engine::store
