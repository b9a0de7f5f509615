// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as the settings of a configuration home.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "engine/store/home.h"
#include "fuzz/demand.h"

namespace {

// A file system of one file, whatever its path.
class OneFile : public engine::store::FileSystem {
 public:
  explicit OneFile(std::span<const unsigned char> bytes) : bytes_(bytes) {}

  int open(const char* /*path*/, int flags, mode_t /*mode*/) override {
    fuzz::demand((flags & O_ACCMODE) == O_RDONLY, "the settings are only read");
    at_ = 0;
    return kDescriptor;
  }
  int close(int fd) override { return fd == kDescriptor ? 0 : -1; }
  ssize_t read(int /*fd*/, void* buffer, std::size_t size) override {
    const std::size_t count = std::min(size, bytes_.size() - at_);
    std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(at_), count, static_cast<unsigned char*>(buffer));
    at_ += count;
    return static_cast<ssize_t>(count);
  }
  int fstat(int /*fd*/, struct stat* out) override {
    *out = {};
    out->st_mode = S_IFREG | S_IRUSR | S_IWUSR;
    out->st_size = static_cast<off_t>(bytes_.size());
    return 0;
  }

 private:
  static constexpr int kDescriptor = 1000;

  std::span<const unsigned char> bytes_;
  std::size_t at_ = 0;
};

bool usablePath(const std::string& path) {
  return path.starts_with('/') && path.find('\0') == std::string::npos;
}

void checkKms(const engine::store::KmsSettings& kms) {
  using namespace engine::store;
  fuzz::demand(!kms.host.empty() && kms.port >= 1 && kms.port <= 65535, "a key server has a name and a port");
  fuzz::demand(usablePath(kms.ca) && usablePath(kms.certificate) && usablePath(kms.key), "paths are absolute");
  for (const auto timeout : {kms.connectTimeout, kms.readTimeout}) {
    fuzz::demand(timeout >= kKmsShortestTimeout && timeout <= kKmsLongestTimeout, "timeouts are within their range");
  }
  fuzz::demand(kms.objectGroup.size() <= kKmsMaxObjectGroup, "an object group is no longer than it may be");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  OneFile files({data, size});
  const auto home = engine::store::readSettings(files, "/home");
  if (home.ok()) {
    fuzz::demand(home.value().directory == "/home", "the home stays the home");
    fuzz::demand(usablePath(home.value().masterKey) && usablePath(home.value().log), "paths are absolute");
    if (home.value().kms) {
      checkKms(*home.value().kms);
    }
  } else {
    fuzz::demand(home.error().text.find("kezu.toml") != std::string::npos, "an error names the file");
  }
  return 0;
}
