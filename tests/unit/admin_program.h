// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin, run as a program, and what came of it.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "unit/store_fixture.h"

namespace store_test {

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs the kezu-admin that stands beside the tests. Its input and output are files in `folder`; what it writes goes to
// the file at `output` instead where one is given.
inline Outcome runAdmin(const fs::path& folder, const std::string& arguments, const std::string& input = "",
                        const fs::path& output = {}) {
  const fs::path program = fs::read_symlink("/proc/self/exe").parent_path() / "kezu-admin";
  const fs::path in = folder / "in";
  const fs::path out = output.empty() ? folder / "out" : output;
  const fs::path err = folder / "err";
  writeText(in, input);
  const std::string command =
      program.string() + " " + arguments + " <" + in.string() + " >" + out.string() + " 2>" + err.string();
  const int status = std::system(command.c_str());
  const int exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return {exitStatus, output.empty() ? readText(out) : "", readText(err)};
}

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace store_test
