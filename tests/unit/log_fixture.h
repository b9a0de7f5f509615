// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the logging library share: a log folder of their own, a zone, and a clock that they set.
#pragma once

#include <gtest/gtest.h>
#include <logw/log_factory.h>
#include <logw/logw.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "logging/log_clock.h"
#include "logging/log_config.h"
#include "temporary_directory.h"

class LogTest : public testing::Test {
 protected:
  // 2026-02-28T23:59:58.007 in a zone nine hours ahead of UTC.
  static constexpr timespec kStart = {1772290798, 7999999};

  LogTest() {
    setZone("KST-9");
    setTime(kStart);
    logging::setClock(&readClock);
    logging::setLogDirectory(directory());
  }

  ~LogTest() override {
    logging::setLogDirectory("");
    logging::setClock(nullptr);
    unsetenv("TZ");
    tzset();
  }

  static void setZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }

  static void setTime(timespec time) { nanoseconds_ = time.tv_sec * 1'000'000'000LL + time.tv_nsec; }

  // The folder that the log is in; not there before the first line.
  std::filesystem::path directory() const { return home_.path() / "log"; }
  std::filesystem::path file(const std::string& date) const { return directory() / ("audit-" + date + ".log"); }

  static std::string contents(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  void put(const std::string& date, const std::string& text, std::ios::openmode mode = std::ios::trunc) const {
    std::filesystem::create_directory(directory());
    std::ofstream(file(date), std::ios::binary | mode) << text;
  }

  static int log(int level, std::vector<const char*> messages) {
    messages.push_back(nullptr);
    return lw_log(lw_get_category(logwCategory()), level, messages.data());
  }

  static Log& audit() { return *LogFactory::getLogFactory()->getLog(0); }

 private:
  static timespec readClock() noexcept {
    const long long now = nanoseconds_;
    return {static_cast<time_t>(now / 1'000'000'000LL), static_cast<long>(now % 1'000'000'000LL)};
  }

  static inline std::atomic<long long> nanoseconds_;
  TemporaryDirectory home_;
};
