// SPDX-License-Identifier: Apache-2.0
#include "fault/machine.h"

namespace {

engine::store::FileSystem* inPlace = nullptr;

}  // namespace

// The linker hands every use of engine::store::machineFiles() to __wrap_, and calls of __real_ to the engine's own.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
engine::store::FileSystem& __real__ZN6engine5store12machineFilesEv() noexcept;
engine::store::FileSystem& __wrap__ZN6engine5store12machineFilesEv() noexcept;

engine::store::FileSystem& __wrap__ZN6engine5store12machineFilesEv() noexcept {
  return inPlace != nullptr ? *inPlace : __real__ZN6engine5store12machineFilesEv();
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace fault {

InPlaceOfMachine::InPlaceOfMachine(engine::store::FileSystem& files) noexcept {
  inPlace = &files;
}

InPlaceOfMachine::~InPlaceOfMachine() {
  inPlace = nullptr;
}

}  // namespace fault
