// SPDX-License-Identifier: Apache-2.0
//
// The commands of kezu-admin. Each writes its results to standard output, its failures with what to do next to standard
// error, and returns the program's exit status.
#pragma once

#include <string>
#include <vector>

namespace admin {

inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;
inline constexpr int kWrongCall = 2;

inline constexpr const char* kAdministrator = "admin";

// Makes a home with a new master key, empty tables and the administrator "admin". All of it appears at once, by a
// rename, or nothing does. A home that is already there is refused; an empty directory in its place keeps its owner.
int initHome(const std::string& home, const std::string& passwordFile);

// Shows counts, settings, file-check strings and file dates.
int showStatus(const std::string& home);

// Opens and authenticates every file, the .bak files too, and says how to go back to a .bak.
int verifyHome(const std::string& home);

// Writes the tables as JSON, without keys and password values.
int dumpHome(const std::string& home);

// Stores a new password value for "admin". Safe while servers use the home.
int changePassword(const std::string& home, const std::string& passwordFile);

// Makes a new master key and seals every table anew under it, or finishes a change that was cut short.
int changeMasterKey(const std::string& home);

// Registers policies of the home on its key management server, all of them where no names are given. Every name is
// looked at before anything changes there: one that is there already is refused, unless it is to be replaced.
int pushPolicies(const std::string& home, const std::vector<std::string>& names, bool replace);

// Shows the policies on the key management server, without their keys, which do not leave it.
int listServer(const std::string& home);

// Connects to the key management server; shows versions, certificates and times.
int checkServer(const std::string& home);

}  // namespace admin
