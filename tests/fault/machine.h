// SPDX-License-Identifier: Apache-2.0
//
// The file system that everything in this program works on, the exported operations too: the machine's, unless a test
// has put another in its place.
#pragma once

#include "engine/store/files.h"

namespace fault {

// Puts `files` in the machine's place until the end of the scope. For operations that begin after that.
class InPlaceOfMachine {
 public:
  explicit InPlaceOfMachine(engine::store::FileSystem& files) noexcept;
  InPlaceOfMachine(const InPlaceOfMachine&) = delete;
  InPlaceOfMachine& operator=(const InPlaceOfMachine&) = delete;
  ~InPlaceOfMachine();
};

// The machine's files without the waits for the disk, for tests that need many saves: what reached the disk only a
// power failure would show.
class UnsyncedFiles : public engine::store::FileSystem {
 public:
  int fsync(int /*fd*/) override { return 0; }
};

}  // namespace fault
