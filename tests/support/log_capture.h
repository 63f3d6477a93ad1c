// Log lines as a test reads them, "<LEVEL> <module>: <text>": from the
// in-process logger, or from the output of a running tokard.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "lapi/logging/logging.h"

namespace tokard::test {

using Lines = std::vector<std::string>;

inline Lines lines_of(const std::string& text) {
  Lines out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    out.push_back(line);
  }
  return out;
}

// The lines that contain `part`.
inline Lines matching(const Lines& lines, const std::string& part) {
  Lines out;
  for (const auto& line : lines) {
    if (line.find(part) != std::string::npos) {
      out.push_back(line);
    }
  }
  return out;
}

// Captures the lines the process logs while it lives, at `level`, with every
// module enabled.
class LogCapture {
 public:
  explicit LogCapture(const std::string& level = "DEBUG") {
    namespace logging = ecu::lapi::logging;
    logging::configure_logging(level);
    logging::enable("tokard", true);
    logging::enable("lapi", true);
    logging::set_log_mode(logging::STDOUT);
    testing::internal::CaptureStdout();
  }
  virtual ~LogCapture() {
    lines();
    ecu::lapi::logging::configure_logging("");
  }

  const Lines& lines() {
    if (!m_done) {
      m_done = true;
      m_lines = lines_of(testing::internal::GetCapturedStdout());
    }
    return m_lines;
  }
  Lines matching(const std::string& part) { return test::matching(lines(), part); }

 private:
  bool m_done = false;
  Lines m_lines;
};

}  // namespace tokard::test
