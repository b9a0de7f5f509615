// SPDX-License-Identifier: Apache-2.0
#include "logw/logw.h"

#include "logging/line_format.h"
#include "logging/log_writer.h"

struct lw_category {
  logging::LogWriter writer;
};

namespace {

constexpr int kAuditCategory = 0;

lw_category* auditCategory() {
  static lw_category category;
  return &category;
}

}  // namespace

extern "C" {

int logwCategory() {
  return kAuditCategory;
}

lw_category* lw_get_category(int category) {
  return category == kAuditCategory ? auditCategory() : nullptr;
}

int lw_log(lw_category* category, int level, const char* const* messages) {
  if (category == nullptr || messages == nullptr) {
    return -1;
  }
  try {
    return category->writer.append(logging::formatEvent(level, messages)) ? 0 : -1;
  } catch (...) {
    return -1;
  }
}

}  // extern "C"
