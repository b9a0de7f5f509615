// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace conformance {

// Empties every table, counter and mode of the engine.
void clearTables();

}  // namespace conformance
