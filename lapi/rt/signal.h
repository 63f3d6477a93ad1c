#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ecu::lapi::rt {

// The fewest data bytes a signal may carry: consumers print the first four
// bytes of every signal without checking.
inline constexpr std::size_t kMinDataBytes = 4;

// One signal of a real-time group as the ECU reported it.
class Signal {
 public:
  Signal() = default;
  Signal(std::string name, std::vector<std::uint8_t> data, std::uint32_t status)
      : m_name(std::move(name)), m_data(std::move(data)), m_status(status) {}
  virtual ~Signal() = default;
  Signal(const Signal&) = default;
  Signal(Signal&&) noexcept = default;
  Signal& operator=(const Signal&) = default;
  Signal& operator=(Signal&&) noexcept = default;

  const std::string& name() const { return m_name; }
  // Raw value bytes; signals from SignalAdapter::unpack carry at least kMinDataBytes.
  const std::vector<std::uint8_t>& data() const { return m_data; }
  // 0 means the signal's content is valid.
  std::uint32_t status() const { return m_status; }

 private:
  std::string m_name;
  std::vector<std::uint8_t> m_data;
  std::uint32_t m_status = 0;
};

// A named group of signals, in the order of its definition.
class SignalGroup {
 public:
  SignalGroup() = default;
  SignalGroup(std::string name, std::vector<Signal> signals)
      : m_name(std::move(name)), m_signals(std::move(signals)) {}
  virtual ~SignalGroup() = default;
  SignalGroup(const SignalGroup&) = default;
  SignalGroup(SignalGroup&&) noexcept = default;
  SignalGroup& operator=(const SignalGroup&) = default;
  SignalGroup& operator=(SignalGroup&&) noexcept = default;

  const std::string& name() const { return m_name; }
  const std::vector<Signal>& signals() const { return m_signals; }
  // True when every signal's status is 0; a group without signals is valid.
  bool is_valid() const;

 private:
  std::string m_name;
  std::vector<Signal> m_signals;
};

}  // namespace ecu::lapi::rt
