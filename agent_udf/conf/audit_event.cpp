// SPDX-License-Identifier: Apache-2.0
#include "conf/audit_event.h"

#include <algorithm>

#include "logw/logw.h"

namespace {
constexpr int kMaxMessages = 1024;  // entries of the list, the ending null included
}

void writeAuditEvent(int level, std::initializer_list<std::string> texts) {
  const std::string* _msgs = texts.begin();
  const int _n = std::min(static_cast<int>(texts.size()), kMaxMessages - 1);
  const char* _messages[kMaxMessages] = {};
  for (int i = 0; i < _n; ++i) {
    _messages[i] = _msgs[i].c_str();
  }
  lw_log(lw_get_category(logwCategory()), level, _messages);
}
