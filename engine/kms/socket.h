// SPDX-License-Identifier: Apache-2.0
//
// A TCP socket that never blocks, never outlives a program that is started (close on exec), and never raises SIGPIPE.
#pragma once

#include <openssl/types.h>

#include <chrono>

#include "engine/store/kms_settings.h"
#include "engine/store/result.h"

namespace engine::kms {

using Deadline = std::chrono::steady_clock::time_point;

class Socket {
 public:
  // Connects to one of the host's addresses by `end`; each gets an equal share of the time that is left. The error's
  // text is the reason alone.
  static store::Result<Socket> connect(const store::KmsSettings& settings, Deadline end);

  Socket(Socket&& other) noexcept;
  Socket& operator=(Socket&&) = delete;
  ~Socket();

  // Waits until the socket can be read or written, or has failed. False when the time is up.
  bool wait(bool forReading, Deadline end) const noexcept;

  // A BIO on this socket, which outlives it. Null when OpenSSL has no memory.
  BIO* bio() const noexcept;

 private:
  explicit Socket(int fd) noexcept : fd_(fd) {}

  int fd_;
};

// Whether a host is given by its address, not by its name.
bool isAddress(const std::string& host) noexcept;

}  // namespace engine::kms
