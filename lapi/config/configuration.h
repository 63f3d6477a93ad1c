// Platform configuration: a string-to-string map of explicit values over
// defaults, with a set of keys that must resolve before the program may run.
#pragma once

#include <istream>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace ecu::lapi::config {

class Configuration {
 public:
  // Defaults {"host": "localhost", "port": "1883"}; required keys "host",
  // "port" and "client_name".
  Configuration();
  virtual ~Configuration() = default;

  // The explicit value of `key`, else its default, else an empty string.
  virtual const std::string& get(const std::string& key) const;

  virtual void set(const std::string& key, const std::string& value);
  virtual void set_default(const std::string& key, const std::string& value);
  virtual void require(const std::string& key);

  // False when a required key resolves to an empty value or "port" is not a
  // whole number from 1 to 65535.
  [[nodiscard]] virtual bool verify() const;

 private:
  std::map<std::string, std::string> m_values;
  std::map<std::string, std::string> m_defaults;
  std::set<std::string> m_required;
};

// Reads "key = value" lines into explicit values. White space around key and
// value is trimmed; blank lines and lines starting with "#" are skipped; a line
// without "=" is skipped with a WARNING on "lapi.config"; a later key wins.
void set_config_from_input(std::unique_ptr<Configuration>& config, std::istream& input);

}  // namespace ecu::lapi::config
