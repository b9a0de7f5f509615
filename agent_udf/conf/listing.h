// SPDX-License-Identifier: Apache-2.0
//
// What the listing functions share.
#pragma once

#include "frame/answer.h"
#include "kezu/engine.h"
#include "kezu/shared.h"

// A text field of the engine's tables, in place.
template <std::size_t N>
frame::Answer fieldText(const char (&field)[N]) {
  const std::string_view text = kezu::fieldText(field);
  return frame::Answer::text(text.data(), text.size());
}

// The form without arguments: the file-check string of a configuration file, after a reload of what changed. Needs no
// session. SQL NULL when the reload fails.
inline frame::Answer fileCheckString(const char (&text)[kFileChkStrSize]) {
  if (Q7_ReloadAllInfoIfChanged3() != 0) {
    return frame::Answer::null();
  }
  return fieldText(text);
}

// A flag of a record: "1" when it is set, "0" when it is not.
inline frame::Answer flagText(const char& flag) {
  return frame::Answer::text(kezu::observe(flag) != 0 ? "1" : "0", 1);
}
