// SPDX-License-Identifier: Apache-2.0
//
// The one-line text form of a query-privilege rule: first type, "first pattern", second type, "second pattern", action.
#pragma once

#include <ostream>
#include <string>

#include "kezu/query_priv.h"

// Writes fields to a stream, with a comma in front of each but the first of the stream.
class csv_ostream {
 public:
  explicit csv_ostream(std::ostream& os) : os_(os) {}

  csv_ostream& operator<<(const char* field) { return write(field); }
  csv_ostream& operator<<(const std::string& field) { return write(field); }
  csv_ostream& operator<<(int field) { return write(field); }

  // Whether everything was written.
  explicit operator bool() const { return static_cast<bool>(os_); }

 private:
  template <typename Field>
  csv_ostream& write(const Field& field) {
    if (os_.tellp() != std::ostream::pos_type(0)) {
      os_ << ",";
    }
    os_ << field;
    return *this;
  }

  std::ostream& os_;
};

// Types that are not known, or none, are written as NULL; quotes inside a pattern are not escaped.
std::ostream& operator<<(std::ostream& os, const Q7QueryPriv& rule);
