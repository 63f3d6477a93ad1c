#pragma once

namespace ecu::lapi::com {

// The result of an operation that can fail without an exception: `value` is
// default-constructed when `ok` is false, `error` holds its no-error value
// when `ok` is true.
template <typename T, typename E>
struct Outcome {
  bool ok = false;
  T value{};
  E error{};
};

}  // namespace ecu::lapi::com
