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
  std::uintptr_t start = 0;
  std::size_t size = 0;
  std::uintptr_t page = 0;
};

struct Write {
  std::size_t variable = 0;
  bool inside = false;  // the write hit the variable, not its neighbour on the page
};

// Read by the signal handler.
std::size_t page_size = 0;
std::array<Watched, kMostVariables> watched;
std::size_t watched_count = 0;
std::array<Write, kMostVariables> written;
std::size_t written_count = 0;

bool protect(const Watched& variable, int rights) {
  return mprotect(reinterpret_cast<void*>(variable.page), page_size, rights) == 0;  // NOLINT(performance-no-int-to-ptr)
}

// Notes whose page was written to, and lets the write happen.
void onFault(int signal, siginfo_t* info, void* /*context*/) {
  const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
  const std::uintptr_t page = address & ~(page_size - 1);
  for (std::size_t i = 0; i < watched_count; ++i) {
    if (watched[i].page == page && protect(watched[i], PROT_READ | PROT_WRITE)) {
      written[written_count++] = {i, address - watched[i].start < watched[i].size};
      return;
    }
  }
  std::signal(signal, SIG_DFL);
}

}  // namespace

WriteWatch::WriteWatch(const std::vector<WatchedVariable>& variables) {
  if (variables.size() > kMostVariables) {
    throw std::invalid_argument("too many variables");
  }
  page_size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  written_count = 0;
  watched_count = variables.size();
  for (std::size_t i = 0; i < watched_count; ++i) {
    const auto start = reinterpret_cast<std::uintptr_t>(variables[i].start);
    watched[i] = {variables[i].name, start, variables[i].size, start & ~(page_size - 1)};
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
    const std::string& name = watched[written[i].variable].name;
    names.push_back(written[i].inside ? name : "not " + name);
  }
  return names;
}

}  // namespace conformance
