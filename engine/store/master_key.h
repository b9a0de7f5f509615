// SPDX-License-Identifier: Apache-2.0
//
// Changing the master key of a home.
#pragma once

#include "engine/store/files.h"
#include "engine/store/home.h"

namespace engine::store {

// What changeMasterKey() did.
enum class KeyChange {
  made,      // there is a new master key
  finished,  // a change that was cut short is finished: the key is the one that it made
};

// Makes a new master key and seals every file of the home, the .bak files too, anew under it. Nothing changes when a
// file cannot be opened.
//
// The order of steps keeps a home that opens at every instant: the key's file holds the new key and the old one from
// before the first file is sealed until after the last one is. A change that was cut short is finished by the next
// call. The home's lock is held all along.
//
// A process that opened the home before knows the old key alone: it goes on with what it loaded, and neither reloads
// nor saves until it opens the home again.
Result<KeyChange> changeMasterKey(FileSystem& files, const Home& home);

}  // namespace engine::store
