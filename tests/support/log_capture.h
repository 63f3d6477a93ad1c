#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "lapi/logging/logging.h"

namespace tokard::test {

// Captures the log lines ("<LEVEL> <module>: <text>") written while it lives,
// at the given level, with every module enabled.
class LogCapture {
 public:
  explicit LogCapture(const std::string& level = "DEBUG") {
    using namespace ecu::lapi::logging;
    configure_logging(level);
    enable("tokard", true);
    enable("lapi", true);
    set_log_mode(STDOUT);
    testing::internal::CaptureStdout();
  }
  virtual ~LogCapture() {
    finish();
    ecu::lapi::logging::configure_logging("");
  }

  const std::vector<std::string>& lines() {
    finish();
    return m_lines;
  }

  bool has(const std::string& line) {
    const auto& all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }

  // Lines that contain `part`.
  std::vector<std::string> matching(const std::string& part) {
    std::vector<std::string> out;
    for (const auto& line : lines()) {
      if (line.find(part) != std::string::npos) {
        out.push_back(line);
      }
    }
    return out;
  }

 private:
  void finish() {
    if (m_done) {
      return;
    }
    m_done = true;
    std::istringstream in(testing::internal::GetCapturedStdout());
    for (std::string line; std::getline(in, line);) {
      m_lines.push_back(line);
    }
  }

  bool m_done = false;
  std::vector<std::string> m_lines;
};

}  // namespace tokard::test
