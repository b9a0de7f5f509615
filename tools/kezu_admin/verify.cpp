// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin verify
#include <fmt/format.h>

#include <string>

#include "access.h"
#include "commands.h"

namespace admin {
namespace {

namespace store = engine::store;

enum class Verdict { good, missing, bad };

// Opens, authenticates and checks one file. `reason` says what is wrong with it.
Verdict examine(const Store& opened, store::TableId id, const std::string& path, std::string& reason) {
  const auto present = store::statFile(opened.files(), path);
  const auto image = store::openTableFile(opened.files(), path, store::tableOf(id), opened.keys(id));
  if (!image.ok()) {
    reason = image.error().text;
    return present.ok() ? Verdict::bad : Verdict::missing;
  }
  const Status status = store::tableOf(id).check(image.value().payload);
  if (!status.ok()) {
    reason = store::shownPath(path) + ": " + status.error().text;
    return Verdict::bad;
  }
  return Verdict::good;
}

// What to do about a file that can't be used.
void advise(const std::string& path, Verdict backup) {
  if (backup == Verdict::good) {
    complain(fmt::format(
        "{}.bak is whole and holds the version before the last save. To go back to it: stop the server, then "
        "cp -p {}.bak {}",
        path, path, path));
  } else {
    complain(fmt::format("{}.bak can't take its place; restore {} from a backup of the home", path, path));
  }
}

bool verifyTable(const Store& opened, store::TableId id) {
  const std::string path = opened.path(id);
  std::string reason;
  std::string backupReason;
  const Verdict verdict = examine(opened, id, path, reason);
  const Verdict backup = examine(opened, id, path + ".bak", backupReason);
  if (verdict == Verdict::good) {
    fmt::print("{}: good\n", path);
  } else {
    complain(reason);
  }
  if (backup == Verdict::good) {
    fmt::print("{}.bak: good\n", path);
  } else if (backup == Verdict::bad) {
    complain(backupReason);
  }
  if (verdict != Verdict::good) {
    advise(path, backup);
  } else if (backup == Verdict::bad) {
    complain(fmt::format("{} itself is good; its next save replaces the .bak", path));
  }
  return verdict == Verdict::good && backup != Verdict::bad;
}

}  // namespace

int verifyHome(const std::string& home) {
  const auto opened = openStore(home);
  if (!opened.ok()) {
    return fail(opened.error());
  }
  bool good = true;
  for (std::size_t i = 0; i < store::kTableCount; ++i) {
    good = verifyTable(*opened.value(), static_cast<store::TableId>(i)) && good;
  }
  return good ? kSuccess : kFailure;
}

}  // namespace admin
