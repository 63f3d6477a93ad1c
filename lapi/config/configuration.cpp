#include "lapi/config/configuration.h"

#include <cctype>

#include "lapi/config/port.h"
#include "lapi/logging/logging.h"

namespace ecu::lapi::config {
namespace {

const logging::LogModulePtr g_log = logging::module("lapi.config");

std::string trim(const std::string& text) {
  auto is_space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && is_space(text[begin])) {
    ++begin;
  }
  while (end > begin && is_space(text[end - 1])) {
    --end;
  }
  return text.substr(begin, end - begin);
}

}  // namespace

Configuration::Configuration()
    : m_defaults{{"host", "localhost"}, {"port", "1883"}},
      m_required{"host", "port", "client_name"} {}

const std::string& Configuration::get(const std::string& key) const {
  static const std::string empty;
  if (auto it = m_values.find(key); it != m_values.end()) {
    return it->second;
  }
  if (auto it = m_defaults.find(key); it != m_defaults.end()) {
    return it->second;
  }
  return empty;
}

void Configuration::set(const std::string& key, const std::string& value) { m_values[key] = value; }

void Configuration::set_default(const std::string& key, const std::string& value) {
  m_defaults[key] = value;
}

void Configuration::require(const std::string& key) { m_required.insert(key); }

bool Configuration::verify() const {
  for (const auto& key : m_required) {
    if (get(key).empty()) {
      LAPI_LOG(WARNING, g_log) << "required key '" << key << "' has no value";
      return false;
    }
  }
  if (parse_port(get("port")) == 0) {
    LAPI_LOG(WARNING, g_log) << "port '" << get("port") << "' is not a number from 1 to 65535";
    return false;
  }
  return true;
}

void set_config_from_input(std::unique_ptr<Configuration>& config, std::istream& input) {
  if (!config) {
    return;
  }
  std::string line;
  int number = 0;
  while (std::getline(input, line)) {
    ++number;
    const std::string text = trim(line);
    if (text.empty() || text[0] == '#') {
      continue;
    }
    const auto eq = text.find('=');
    if (eq == std::string::npos) {
      LAPI_LOG(WARNING, g_log) << "line " << number << " has no '=', ignored: " << text;
      continue;
    }
    config->set(trim(text.substr(0, eq)), trim(text.substr(eq + 1)));
  }
}

}  // namespace ecu::lapi::config
