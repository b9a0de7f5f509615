// SPDX-License-Identifier: Apache-2.0
#include "conf/audit_event.h"

#include "logw/logw.h"

namespace {

// The list of texts that the logging library takes: borrowed, ended by null pointers.
class Messages {
 public:
  void add(const std::string& text) {
    if (_n < kMaxMessages - 1) {
      _messages[_n++] = text.c_str();
    }
  }

  void write(int level) const { lw_log(lw_get_category(logwCategory()), level, _messages); }

 private:
  static constexpr int kMaxMessages = 1024;  // entries, the ending nulls included

  const char* _messages[kMaxMessages] = {};
  int _n = 0;
};

}  // namespace

void writeAuditEvent(int level, const std::vector<AuditPair>& pairs) {
  Messages messages;
  for (const AuditPair& pair : pairs) {
    messages.add(pair.key);
    messages.add(pair.value);
  }
  messages.write(level);
}

void writeAuditTexts(int level, std::initializer_list<std::string> texts) {
  Messages messages;
  for (const std::string& text : texts) {
    messages.add(text);
  }
  messages.write(level);
}
