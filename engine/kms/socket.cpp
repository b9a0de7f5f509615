// SPDX-License-Identifier: Apache-2.0
#include "engine/kms/socket.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <openssl/bio.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <system_error>
#include <utility>

namespace engine::kms {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

store::Error failed(std::string reason) {
  return {store::Error::Kind::system, std::move(reason)};
}

std::string reasonOf(int error) {
  return std::generic_category().message(error);
}

struct FreeAddresses {
  void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

store::Result<Addresses> look(const store::KmsSettings& settings) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | (isAddress(settings.host) ? AI_NUMERICHOST : 0);
  addrinfo* list = nullptr;
  const int result = getaddrinfo(settings.host.c_str(), std::to_string(settings.port).c_str(), &hints, &list);
  if (result != 0) {
    const std::string reason = result == EAI_SYSTEM ? reasonOf(errno) : gai_strerror(result);
    return failed("its address can't be found: " + reason);
  }
  return Addresses(list);
}

// The BIO's half of OpenSSL's interface: send and receive on a socket that does not block.

int fdOf(BIO* bio) noexcept {
  return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio)));
}

bool again(int error) noexcept {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

int sendSome(BIO* bio, const char* bytes, int size) noexcept {
  BIO_clear_retry_flags(bio);
  const ssize_t sent = send(fdOf(bio), bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL);
  if (sent < 0 && again(errno)) {
    BIO_set_retry_write(bio);
  }
  return static_cast<int>(sent);
}

int receiveSome(BIO* bio, char* bytes, int size) noexcept {
  BIO_clear_retry_flags(bio);
  const ssize_t received = recv(fdOf(bio), bytes, static_cast<std::size_t>(size), 0);
  if (received < 0 && again(errno)) {
    BIO_set_retry_read(bio);
  } else if (received == 0) {
    BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  }
  return static_cast<int>(received);
}

long control(BIO* bio, int command, long /*number*/, void* /*pointer*/) noexcept {
  switch (command) {
    case BIO_CTRL_FLUSH:
      return 1;
    case BIO_CTRL_EOF:
      return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
    default:
      return 0;
  }
}

// Made once and kept: connections of other threads may use it up to the end of the process.
const BIO_METHOD* socketMethod() noexcept {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket without signals");
    if (made != nullptr) {
      BIO_meth_set_write(made, sendSome);
      BIO_meth_set_read(made, receiveSome);
      BIO_meth_set_ctrl(made, control);
    }
    return made;
  }();
  return method;
}

}  // namespace

bool isAddress(const std::string& host) noexcept {
  in6_addr address = {};
  return inet_pton(AF_INET, host.c_str(), &address) == 1 || inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

Socket::Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Socket::~Socket() {
  if (fd_ >= 0) {
    close(fd_);
  }
}

bool Socket::wait(bool forReading, Deadline end) const noexcept {
  for (;;) {
    const auto left = duration_cast<milliseconds>(end - steady_clock::now()).count();
    if (left < 0) {
      return false;
    }
    pollfd entry = {.fd = fd_, .events = static_cast<short>(forReading ? POLLIN : POLLOUT), .revents = 0};
    // One millisecond more, since the remainder was rounded down.
    const int ready = poll(&entry, 1, static_cast<int>(std::min<long long>(left + 1, INT_MAX)));
    if (ready > 0 || (ready < 0 && errno != EINTR)) {
      return true;  // also after a failure: the next operation on the socket has the reason
    }
  }
}

store::Result<Socket> Socket::connect(const store::KmsSettings& settings, Deadline end) {
  const auto addresses = look(settings);
  if (!addresses.ok()) {
    return addresses.error();
  }
  int left = 0;
  for (const addrinfo* address = addresses.value().get(); address != nullptr; address = address->ai_next) {
    ++left;
  }
  std::string reason = "it has no address";
  for (const addrinfo* address = addresses.value().get(); address != nullptr; address = address->ai_next, --left) {
    const auto now = steady_clock::now();
    const Deadline share = now + std::max(end - now, steady_clock::duration::zero()) / left;
    Socket socket(::socket(address->ai_family, address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket.fd_ < 0) {
      reason = reasonOf(errno);
      continue;
    }
    const int on = 1;
    setsockopt(socket.fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    int error = ::connect(socket.fd_, address->ai_addr, address->ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
      socklen_t size = sizeof error;
      const bool inTime = socket.wait(false, share);
      error = !inTime ? ETIMEDOUT : getsockopt(socket.fd_, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
    }
    if (error == 0) {
      return socket;
    }
    reason = error == ETIMEDOUT ? "no connection within connect_timeout" : reasonOf(error);
  }
  return failed(reason);
}

BIO* Socket::bio() const noexcept {
  const BIO_METHOD* method = socketMethod();
  BIO* bio = method == nullptr ? nullptr : BIO_new(method);
  if (bio != nullptr) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a pointer is what it keeps, and the socket may move
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(fd_)));
    BIO_set_init(bio, 1);
  }
  return bio;
}

}  // namespace engine::kms
