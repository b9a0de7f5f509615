// SPDX-License-Identifier: Apache-2.0
//
// Errors as values: what an operation of the store gives back when it can fail.
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace engine::store {

// Why an operation failed. The text names the path and the reason, in words for an administrator. It never holds a
// secret.
struct Error {
  enum class Kind {
    system,    // the system refused: the text has its reason
    invalid,   // what is there can't be accepted: wrong permissions, damaged, of a later version
    conflict,  // another process saved the file in between
  };
  Kind kind;
  std::string text;
};

// A value, or the error that took its place.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::move(value)) {}  // NOLINT(google-explicit-constructor): so that return reads plainly
  Result(Error error) : state_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const noexcept { return state_.index() == 0; }
  T& value() { return std::get<0>(state_); }
  const T& value() const { return std::get<0>(state_); }
  const Error& error() const { return std::get<1>(state_); }

 private:
  std::variant<T, Error> state_;
};

// Success, or an error.
class [[nodiscard]] Status {
 public:
  Status() = default;
  Status(Error error) : state_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const noexcept { return state_.index() == 0; }
  const Error& error() const { return std::get<1>(state_); }

 private:
  std::variant<std::monostate, Error> state_;
};

}  // namespace engine::store
