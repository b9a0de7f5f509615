// SPDX-License-Identifier: Apache-2.0
//
// Reading the values of kezu.toml, with errors that name the file, the line and the setting.
#pragma once

#include <string>

#include "engine/store/kms_settings.h"
#include "engine/store/result.h"
#include "engine/store/toml.h"

namespace engine::store {

Error invalidSetting(const std::string& source, const toml::source_region& where, const std::string& reason);

// A value that is a path. A relative one starts at `directory`.
Status readPath(const toml::node& value, const std::string& source, const std::string& key,
                const std::string& directory, std::string& path);

// The table [kms].
Status readKms(const toml::table& table, const std::string& source, const std::string& directory, KmsSettings& kms);

}  // namespace engine::store
