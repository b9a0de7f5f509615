// SPDX-License-Identifier: Apache-2.0
//
// The one-line text form of a query-privilege rule: first type, "first pattern", second type, "second pattern", action.
#pragma once

#include <ostream>
#include <string>

#include "kezu/query_priv.h"

// Writes fields to a stream, with a comma in front of each but the first of the stream: the one at put position 0. A
// stream that can't tell its position, as boost::lexical_cast's, counts as fresh until the first field was written.
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
    if (!isAtStart()) {
      os_ << ",";
    }
    os_ << field;
    written_ = true;
    return *this;
  }

  bool isAtStart() const {
    const std::ostream::pos_type position = os_.tellp();
    return position == std::ostream::pos_type(-1) ? !written_ : position == std::ostream::pos_type(0);
  }

  std::ostream& os_;
  bool written_ = false;
};

// Types that are not known, or none, are written as NULL; quotes inside a pattern are not escaped.
std::ostream& operator<<(std::ostream& os, const Q7QueryPriv& rule);
