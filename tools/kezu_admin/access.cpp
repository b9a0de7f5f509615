// SPDX-License-Identifier: Apache-2.0
#include "access.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace admin {
namespace {

namespace store = engine::store;

// Reads at most `out.size()` bytes. False, with errno, on failure.
bool readUpTo(int fd, cipher::SecretBytes& out) {
  std::size_t done = 0;
  while (done < out.size()) {
    const ssize_t got = ::read(fd, out.data() + done, out.size() - done);
    if (got == 0) {
      break;
    }
    if (got > 0) {
      done += static_cast<std::size_t>(got);
    } else if (errno != EINTR) {
      return false;
    }
  }
  out.resize(done);
  return true;
}

void dropLineEnd(cipher::SecretBytes& text) {
  if (!text.empty() && text.back() == '\n') {
    text.pop_back();
    if (!text.empty() && text.back() == '\r') {
      text.pop_back();
    }
  }
}

}  // namespace

void complain(const std::string& text) {
  fmt::print(stderr, "kezu-admin: {}\n", text);
}

int fail(const Error& error) {
  complain(error.text);
  return 1;
}

Status becomeOwner(const std::string& home) {
  struct stat status = {};
  if (geteuid() != 0 || ::stat(home.c_str(), &status) != 0 || status.st_uid == 0) {
    return {};
  }
  if (setgroups(0, nullptr) != 0 || setegid(status.st_gid) != 0 || seteuid(status.st_uid) != 0) {
    return store::systemError(home, fmt::format("cannot be used as its owner, user number {}", status.st_uid));
  }
  return {};
}

Result<std::unique_ptr<Store>> openStore(const std::string& home) {
  if (Status status = becomeOwner(home); !status.ok()) {
    return status.error();
  }
  auto opened = store::openHome(store::machineFiles(), home);
  if (!opened.ok()) {
    return opened.error();
  }
  return Store::open(store::machineFiles(), std::move(opened.value()));
}

Result<std::unique_ptr<Store>> loadStore(const std::string& home) {
  auto opened = openStore(home);
  if (opened.ok()) {
    if (Status status = opened.value()->loadAll(); !status.ok()) {
      return status.error();
    }
  }
  return opened;
}

Result<cipher::SecretBytes> readPassword(const std::string& file) {
  constexpr std::size_t kLongest = sizeof(Q7UserInfo::passwd) - 1;
  const bool standardInput = file == "-";
  const int fd = standardInput ? STDIN_FILENO : ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return store::systemError(file, "the password file cannot be opened");
  }
  cipher::SecretBytes password(kLongest + 3);  // with a line end, and one byte to notice what is too long
  const bool read = readUpTo(fd, password);
  const Error error = store::systemError(file, "the password file cannot be read");
  if (!standardInput) {
    ::close(fd);
  }
  if (!read) {
    return error;
  }
  dropLineEnd(password);
  if (password.empty() || password.size() > kLongest ||
      std::find(password.begin(), password.end(), 0) != password.end()) {
    return Error{Error::Kind::invalid,
                 fmt::format("the password value must have 1 to {} bytes, none of them zero", kLongest)};
  }
  return password;
}

void storePassword(Q7UserInfo& user, const cipher::SecretBytes& password) {
  std::fill(std::begin(user.passwd), std::end(user.passwd), '\0');
  std::copy(password.begin(), password.end(), user.passwd);
}

}  // namespace admin
