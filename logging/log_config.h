// SPDX-License-Identifier: Apache-2.0
//
// Where the logs are written. For the engine, which knows the configuration home.
#pragma once

#include <string>

namespace logging {

// Sets the folder of the log files. Until it is called, and after it is called with an empty path, nothing is logged
// and every log is empty. The folder need not exist yet: it is made, mode 0700, with the first line. May be called
// again, from any thread.
void setLogDirectory(const std::string& directory);

}  // namespace logging
