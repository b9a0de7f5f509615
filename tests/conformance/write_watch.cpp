// SPDX-License-Identifier: Apache-2.0
#include "write_watch.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <stdexcept>

namespace conformance {
namespace {

constexpr std::size_t kMostVariables = 4;

struct Watched {
  std::string name;
  std::uintptr_t page = 0;
};

// Read by the signal handler.
std::size_t page_size = 0;
std::array<Watched, kMostVariables> watched;
std::size_t watched_count = 0;
std::array<std::size_t, kMostVariables> written;
std::size_t written_count = 0;

bool protect(const Watched& variable, int rights) {
  return mprotect(reinterpret_cast<void*>(variable.page), page_size, rights) == 0;  // NOLINT(performance-no-int-to-ptr)
}

// Notes whose page was written to, and lets the write happen.
void onFault(int signal, siginfo_t* info, void* /*context*/) {
  const std::uintptr_t page = reinterpret_cast<std::uintptr_t>(info->si_addr) & ~(page_size - 1);
  for (std::size_t i = 0; i < watched_count; ++i) {
    if (watched[i].page == page && protect(watched[i], PROT_READ | PROT_WRITE)) {
      written[written_count++] = i;
      return;
    }
  }
  std::signal(signal, SIG_DFL);
}

}  // namespace

WriteWatch::WriteWatch(std::vector<std::pair<std::string, void*>> variables) {
  if (variables.size() > kMostVariables) {
    throw std::invalid_argument("too many variables");
  }
  page_size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  written_count = 0;
  watched_count = variables.size();
  for (std::size_t i = 0; i < watched_count; ++i) {
    watched[i] = {variables[i].first, reinterpret_cast<std::uintptr_t>(variables[i].second) & ~(page_size - 1)};
  }
  struct sigaction action = {};
  action.sa_sigaction = onFault;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &action, &before_);
  for (std::size_t i = 0; i < watched_count; ++i) {
    protect(watched[i], PROT_READ);
  }
}

WriteWatch::~WriteWatch() {
  for (std::size_t i = 0; i < watched_count; ++i) {
    protect(watched[i], PROT_READ | PROT_WRITE);
  }
  sigaction(SIGSEGV, &before_, nullptr);
}

std::vector<std::string> WriteWatch::order() const {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < written_count; ++i) {
    names.push_back(watched[written[i]].name);
  }
  return names;
}

}  // namespace conformance
