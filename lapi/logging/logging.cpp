#include "lapi/logging/logging.h"

#include <syslog.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <mutex>
#include <sstream>
#include <vector>

namespace ecu::lapi::logging {
namespace {

constexpr int kDefaultLevel = NOTICE;
constexpr const char* kLevelNames[] = {"EMERG",   "ALERT",  "CRITICAL", "ERROR",
                                       "WARNING", "NOTICE", "INFO",     "DEBUG"};

std::atomic<int> g_level{kDefaultLevel};
std::atomic<int> g_mode{SYSLOG};

// Module registry and the enable switches, which also apply to modules
// created after the switch was made.
struct Registry {
  std::mutex mutex;
  std::map<std::string, LogModulePtr> modules;
  std::vector<std::pair<std::string, bool>> switches;
};

Registry& registry() {
  static auto* r = new Registry;  // never destroyed: modules are used during static destruction
  return *r;
}

bool matches_prefix(const std::string& name, const std::string& prefix) {
  return name.compare(0, prefix.size(), prefix) == 0 &&
         (name.size() == prefix.size() || name[prefix.size()] == '.');
}

std::mutex& output_mutex() {
  static auto* m = new std::mutex;
  return *m;
}

void write_line(int level, const LogModule* mod, const std::string& text) {
  const int mode = g_mode.load();
  std::lock_guard<std::mutex> lock(output_mutex());
  if (mode == SYSLOG) {
    static const bool opened = (openlog("tokard", LOG_PID, LOG_DAEMON), true);
    (void)opened;
    if (mod != nullptr) {
      syslog(level, "%s: %s", mod->name().c_str(), text.c_str());
    } else {
      syslog(level, "%s", text.c_str());
    }
    return;
  }
  std::string line = level_name(level);
  if (mod != nullptr) {
    line += ' ';
    line += mod->name();
  }
  line += ": ";
  line += text;
  line += '\n';
  FILE* out = mode == STDOUT ? stdout : stderr;
  std::fwrite(line.data(), 1, line.size(), out);
  std::fflush(out);
}

std::ostream& thread_buffer() {
  thread_local std::ostringstream buffer;
  buffer.str(std::string());
  buffer.clear();
  buffer.flags(std::ios_base::dec | std::ios_base::skipws);
  buffer.fill(' ');
  buffer.width(0);
  buffer.precision(6);
  return buffer;
}

}  // namespace

LogModulePtr module(const std::string& name) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.modules.find(name);
  if (it != r.modules.end()) {
    return it->second;
  }
  auto mod = std::make_shared<LogModule>(name);
  for (const auto& [prefix, on] : r.switches) {
    if (matches_prefix(name, prefix)) {
      mod->set_enabled(on);
    }
  }
  r.modules.emplace(name, mod);
  return mod;
}

void enable(const std::string& prefix, bool on) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.switches.emplace_back(prefix, on);
  for (auto& [name, mod] : r.modules) {
    if (matches_prefix(name, prefix)) {
      mod->set_enabled(on);
    }
  }
}

void configure_logging(const std::string& level_name_text) {
  std::string upper = level_name_text;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  for (int level = EMERG; level <= DEBUG; ++level) {
    if (upper == kLevelNames[level]) {
      g_level.store(level);
      return;
    }
  }
  g_level.store(kDefaultLevel);
  if (!level_name_text.empty()) {
    static const LogModulePtr log = module("lapi.logging");
    LAPI_LOG(WARNING, log) << "Unknown log level '" << level_name_text << "', using "
                           << get_default_log_level_name();
  }
}

void set_log_mode(LogMode mode) { g_mode.store(mode); }

LogMode get_log_mode() { return static_cast<LogMode>(g_mode.load()); }

int get_log_level() { return g_level.load(); }

const char* get_default_log_level_name() { return kLevelNames[kDefaultLevel]; }

const char* level_name(int level) {
  return level >= EMERG && level <= DEBUG ? kLevelNames[level] : "UNKNOWN";
}

LogStream::LogStream(int level, const LogModule* mod)
    : m_level(level), m_module(mod), m_out(thread_buffer()) {}

LogStream::~LogStream() {
  try {
    flush();
  } catch (...) {
    // A log line that cannot be written is lost; the caller goes on.
  }
}

void LogStream::flush() {
  if (m_flushed) {
    return;
  }
  m_flushed = true;
  write_line(m_level, m_module, static_cast<std::ostringstream&>(m_out).str());
}

}  // namespace ecu::lapi::logging
