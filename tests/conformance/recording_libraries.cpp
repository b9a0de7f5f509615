// SPDX-License-Identifier: Apache-2.0
//
// The cipher, random-number and logging libraries, recorded.
#include "recording_libraries.h"

#include <string>

#include "bcipher/bcipher.h"
#include "bcipher/randhash.h"
#include "logw/log_factory.h"
#include "logw/logw.h"
#include "recording_engine.h"

using conformance::inQuotes;
using conformance::RecordingEngine;

struct lw_category {
  int number;
};

namespace {

constexpr int kMaxMessages = 1024;  // entries of an event's list, nulls included

RecordingEngine& engine() {
  return RecordingEngine::get();
}

lw_category audit_category{conformance::kAuditCategoryNumber};

// A log whose lines the test has set. A scripted text stands for their number.
class RecordedLog : public Log {
 public:
  explicit RecordedLog(int type) : type_(type) {}

  std::uint64_t getNumTotalLines(const std::string& date) override {
    engine().enter("Log::getNumTotalLines", std::to_string(type_) + ", " + inQuotes(date));
    const std::string scripted = engine().textOf("Log::getNumTotalLines");
    return scripted.empty() ? conformance::logLines()[type_][date].size() : std::stoull(scripted);
  }

  const char* getLog(const std::string& date, unsigned int lineNum) override {
    engine().enter("Log::getLog", std::to_string(type_) + ", " + inQuotes(date) + ", " + std::to_string(lineNum));
    const auto& lines = conformance::logLines()[type_][date];
    return lineNum < lines.size() ? lines[lineNum].c_str() : "";
  }

 private:
  int type_;
};

}  // namespace

namespace conformance {

std::map<int, std::map<std::string, std::vector<std::string>>>& logLines() {
  static std::map<int, std::map<std::string, std::vector<std::string>>> lines;
  return lines;
}

lw_category* auditCategory() {
  return &audit_category;
}

}  // namespace conformance

// A scripted result of 1 is a key that cannot be had.
BCipherKey BCIPHER_DupKey(BCipherKey key) {
  engine().enter("BCIPHER_DupKey", engine().keyName(key));
  return engine().resultOf("BCIPHER_DupKey") != 0 ? nullptr : engine().makeKey("copy of " + engine().keyName(key));
}
void BCIPHER_WipeKey(BCipherKey key) {
  engine().enter("BCIPHER_WipeKey", engine().keyName(key));
  engine().setKeyState(key, true, false);
}
void BCIPHER_DelKey(BCipherKey key) {
  engine().enter("BCIPHER_DelKey", engine().keyName(key));
  engine().setKeyState(key, false, true);
}
int Check_CPU_support_AES() {
  engine().enter("Check_CPU_support_AES", "");
  return engine().resultOf("Check_CPU_support_AES", 1);
}

int RANDHASH_Initialize(RANDHASH_CTX* ctx) {
  engine().enter("RANDHASH_Initialize", "");
  ctx->ready = 0xC0FFEE;
  return engine().resultOf("RANDHASH_Initialize");
}

// Counts up from what "RANDHASH_GetRandomNum.first" is scripted with. The context must be a prepared one.
int RANDHASH_GetRandomNum(unsigned char* buffer, unsigned int length, RANDHASH_CTX* ctx) {
  engine().enter("RANDHASH_GetRandomNum",
                 std::to_string(length) + (ctx->ready == 0xC0FFEE ? ", prepared" : ", not prepared"));
  const int first = engine().resultOf("RANDHASH_GetRandomNum.first");
  for (unsigned int i = 0; i < length; ++i) {
    buffer[i] = static_cast<unsigned char>(static_cast<unsigned int>(first) + i);
  }
  return engine().resultOf("RANDHASH_GetRandomNum");
}

int logwCategory() {
  engine().enter("logwCategory", "");
  return conformance::kAuditCategoryNumber;
}
lw_category* lw_get_category(int category) {
  engine().enter("lw_get_category", std::to_string(category));
  return engine().resultOf("lw_get_category") != 0 ? nullptr : &audit_category;
}

// Reads the whole list, so that a shorter one is a fault that the address sanitizer sees.
int lw_log(lw_category* category, int level, const char* const* messages) {
  conformance::Event event;
  event.category = category;
  event.level = level;
  int i = 0;
  std::string arguments = std::to_string(level);
  for (; i < kMaxMessages && messages[i] != nullptr; ++i) {
    event.texts.emplace_back(messages[i]);
    arguments += ", " + inQuotes(messages[i]);
  }
  event.nulls_behind = i < kMaxMessages;
  for (; i < kMaxMessages; ++i) {
    event.nulls_behind = event.nulls_behind && messages[i] == nullptr;
  }
  engine().addEvent(std::move(event));
  engine().enter("lw_log", arguments);
  return engine().resultOf("lw_log");
}

LogFactory* LogFactory::getLogFactory() {
  static LogFactory factory;
  return &factory;
}

// A scripted result of 1 is a log that does not exist.
Log* LogFactory::getLog(int logType) {
  engine().enter("LogFactory::getLog", std::to_string(logType));
  if (engine().resultOf("LogFactory::getLog") != 0) {
    return nullptr;
  }
  static std::map<int, RecordedLog> logs;
  return &logs.try_emplace(logType, logType).first->second;
}
