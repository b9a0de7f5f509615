// SPDX-License-Identifier: Apache-2.0
//
// How kezu-admin opens a home, and what the commands share.
#pragma once

#include <memory>
#include <string>

#include "cipher/secret.h"
#include "engine/store/store.h"

namespace admin {

using engine::store::Error;
using engine::store::Result;
using engine::store::Status;
using engine::store::Store;

// Writes "kezu-admin: TEXT" to standard error.
void complain(const std::string& text);

// The same for an error. Returns the exit status of a failure.
int fail(const Error& error);

// When root runs the program on a home of another user, goes on as that user: what is written then is that user's, and
// nothing is reached that the server would not reach.
Status becomeOwner(const std::string& home);

// Opens a home as its owner; no table is loaded yet.
Result<std::unique_ptr<Store>> openStore(const std::string& home);

// The same, with every table loaded into the engine's tables.
Result<std::unique_ptr<Store>> loadStore(const std::string& home);

// Reads a password value: the file's contents, or standard input's for "-", as they are, less one line end at their
// end. 1 to 127 bytes, none of them zero.
Result<cipher::SecretBytes> readPassword(const std::string& file);

// Stores a password value in a record.
void storePassword(Q7UserInfo& user, const cipher::SecretBytes& password);

}  // namespace admin
