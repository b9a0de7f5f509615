// SPDX-License-Identifier: Apache-2.0
#include "udfInit.h"

#include <atomic>

#include "frame/init.h"

bool initUdf(char* message) {
  static std::atomic<bool> initionalize{false};
  return frame::startEngine(initionalize, message);
}
