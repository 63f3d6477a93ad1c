// Platform logging: named modules, syslog levels, and line streams that cost
// nothing when the statement is not admitted.
//
//   LAPI_LOG(INFO, g_log) << "client " << name << " token refreshed";
//
// The level and module check runs before any operand is evaluated; an admitted
// statement is formatted into a per-thread buffer and written as one whole line
// when the statement ends. Lines from several threads never interleave.
#pragma once

#include <atomic>
#include <memory>
#include <ostream>
#include <string>

namespace ecu::lapi::logging {

enum Level : int {
  EMERG = 0,
  ALERT = 1,
  CRITICAL = 2,
  ERROR = 3,
  WARNING = 4,
  NOTICE = 5,
  INFO = 6,
  DEBUG = 7,
};

enum LogMode : int {
  SYSLOG = 0,
  STDOUT = 1,
  STDERR = 2,
};

class LogModule {
 public:
  explicit LogModule(std::string name) : m_name(std::move(name)) {}
  virtual ~LogModule() = default;
  LogModule(const LogModule&) = delete;
  LogModule& operator=(const LogModule&) = delete;

  const std::string& name() const { return m_name; }
  bool enabled() const { return m_enabled.load(std::memory_order_relaxed); }
  void set_enabled(bool on) { m_enabled.store(on, std::memory_order_relaxed); }

 private:
  std::string m_name;
  std::atomic<bool> m_enabled{false};
};

using LogModulePtr = std::shared_ptr<LogModule>;

// The module of that name, created disabled on first use; the same name always
// yields the same module.
LogModulePtr module(const std::string& name);

// Sets the level from one of EMERG, ALERT, CRITICAL, ERROR, WARNING, NOTICE,
// INFO, DEBUG in any letter case. An empty name sets the default level; any
// other text sets the default level and logs a WARNING on "lapi.logging".
void configure_logging(const std::string& level_name);

// Enables or disables every module named `prefix` or starting with `prefix.`,
// including modules created later.
void enable(const std::string& prefix, bool on);

// Where lines go: syslog (ident "tokard", facility LOG_DAEMON), standard
// output or standard error. Syslog is the initial mode.
void set_log_mode(LogMode mode);
LogMode get_log_mode();

int get_log_level();
const char* get_default_log_level_name();
const char* level_name(int level);

// EMERG to WARNING pass whenever the module exists; NOTICE, INFO and DEBUG
// also need the current level and an enabled module.
inline bool admits(int level, const LogModule* mod) {
  if (mod == nullptr) {
    return false;
  }
  if (level <= WARNING) {
    return true;
  }
  return level <= get_log_level() && mod->enabled();
}

// One log statement. Text streamed into it is collected in a per-thread
// buffer and emitted by flush(), which the destructor calls.
class LogStream {
 public:
  LogStream(int level, const LogModule* mod);
  virtual ~LogStream();
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

  template <typename V>
  LogStream& operator<<(const V& value) {
    m_out << value;
    return *this;
  }
  LogStream& operator<<(std::ostream& (*manip)(std::ostream&)) {
    m_out << manip;
    return *this;
  }
  LogStream& operator<<(std::ios_base& (*manip)(std::ios_base&)) {
    m_out << manip;
    return *this;
  }

  void flush();

 private:
  int m_level;
  const LogModule* m_module;
  std::ostream& m_out;
  bool m_flushed = false;
};

}  // namespace ecu::lapi::logging

// A statement on a module (a LogModulePtr); the operands are evaluated only
// when the statement is admitted.
#define LAPI_LOG(level, mod)                                                     \
  if (!::ecu::lapi::logging::admits(::ecu::lapi::logging::level, (mod).get())) { \
  } else                                                                         \
    ::ecu::lapi::logging::LogStream(::ecu::lapi::logging::level, (mod).get())

// A statement without module, admitted by the current level alone.
#define LAPI_LOG_NO_MODULE(level)                                            \
  if (::ecu::lapi::logging::level > ::ecu::lapi::logging::get_log_level()) { \
  } else                                                                     \
    ::ecu::lapi::logging::LogStream(::ecu::lapi::logging::level, nullptr)
