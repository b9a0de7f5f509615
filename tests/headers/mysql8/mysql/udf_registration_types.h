// SPDX-License-Identifier: Apache-2.0
//
// The server's UDF interface in the form that MySQL 8 gives it: a header of its own, bool where older servers have
// my_bool, and no my_bool at all. Only the names and the layout that a UDF library sees.
#pragma once

enum Item_result {
  INVALID_RESULT = -1,
  STRING_RESULT = 0,
  REAL_RESULT,
  INT_RESULT,
  ROW_RESULT,
  DECIMAL_RESULT,
};

struct UDF_ARGS {
  unsigned int arg_count;
  Item_result* arg_type;
  char** args;
  unsigned long* lengths;
  char* maybe_null;
  char** attributes;
  unsigned long* attribute_lengths;
  void* extension;
};

struct UDF_INIT {
  bool maybe_null;
  unsigned int decimals;
  unsigned long max_length;
  char* ptr;
  bool const_item;
  void* extension;
};
