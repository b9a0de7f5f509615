// SPDX-License-Identifier: Apache-2.0
#pragma once

// Starts the engine once per process, for all configuration functions. Returns true when the engine is running. Returns
// false with the engine's reason in `message` (the server's buffer of 512 bytes) when it does not start; the next call
// tries again. Two first calls at once may both start it, which the engine allows.
bool initUdf(char* message);
