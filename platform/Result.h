#pragma once

#include <string>
#include <utility>
#include <variant>

namespace platform {

// Why a platform call failed: the system's error number (errno).
struct Error {
  int code = 0;
  std::string message() const;
};

// A value or the error that kept the call from giving one. Platform layers give results this way
// instead of throwing.
template <class T>
class Result {
 public:
  Result(T value) : content_(std::move(value)) {}  // NOLINT: implicit by design
  Result(Error error) : content_(error) {}         // NOLINT: implicit by design

  bool ok() const { return content_.index() == 0; }
  explicit operator bool() const { return ok(); }

  // Only valid when `ok()`.
  T& value() { return std::get<0>(content_); }
  const T& value() const { return std::get<0>(content_); }
  T& operator*() { return value(); }
  const T& operator*() const { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  // The error; code 0 when the result holds a value.
  Error error() const { return ok() ? Error{} : std::get<1>(content_); }

 private:
  std::variant<T, Error> content_;
};

}  // namespace platform
