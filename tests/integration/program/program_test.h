#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "integration/program/mqtt_probe.h"
#include "integration/program/program.h"
#include "main/build_info.h"
#include "support/broker.h"

namespace tokard::test {

// Runs the built program. `tokard` reads the real configuration file (the
// tests only use it where no file is read); `tokard_testconf` reads
// TOKARD_TEST_CONFIG_FILE, which these tests write and remove. Every run gets
// the syslog capture preloaded, so nothing reaches the host's system log.
class ProgramTest : public testing::Test {
 protected:
  void SetUp() override { clean(); }
  void TearDown() override { clean(); }

  static std::string banner() { return std::string("tokard: ") + build_info + "\n"; }

  static std::string help() {
    return banner() +
           "\n"
           "USAGE: tokard [OPTIONS]\n"
           "\n"
           "OPTIONS:\n"
           "  -H, --host HOST           Hostname (or IP) of internal MQTT broker\n"
           "  -p, --port PORT           Port of internal MQTT broker\n"
           "  -l, --loglevel            Enforces the loglevel during execution.\n"
           "                            Possibles values: EMERG, ALERT, CRITICAL, ERROR, WARNING, "
           "NOTICE, INFO, DEBUG\n"
           "                            Default: NOTICE\n"
           "\n"
           "  -L, --log-stdout          Set logging to STDOUT instead of syslog.\n"
           "\n"
           "  -h, --help                Show this help\n"
           "\n"
           "  -V, --version             Show version\n"
           "\n";
  }

  static void write_config(const std::string& text) {
    std::ofstream(TOKARD_TEST_CONFIG_FILE) << text;
  }

  static std::unique_ptr<Program> run(const std::vector<std::string>& args) {
    return start(TOKARD_TESTCONF_PROGRAM, args);
  }

  static std::unique_ptr<Program> run_installed(const std::vector<std::string>& args) {
    return start(TOKARD_PROGRAM, args);
  }

  // What the runs of this test sent to syslog, one "<priority> <text>" a line.
  static std::vector<std::string> syslog_lines() { return lines(read_file(syslog_file())); }

  static std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
      out.push_back(line);
    }
    return out;
  }

  static bool contains(const std::vector<std::string>& all, const std::string& line) {
    return std::find(all.begin(), all.end(), line) != all.end();
  }

  // Sends `sig` to a serving program and expects "... stopped!" and status 0.
  static void expect_clean_stop(Program& program, int sig) {
    const auto sent = std::chrono::steady_clock::now();
    ASSERT_TRUE(program.send(sig));
    const auto status = program.wait(std::chrono::seconds(5));
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - sent)
                        .count();
    std::cout << "[          ] stopped " << ms << " ms after signal " << sig << "\n";
    ASSERT_TRUE(status.has_value()) << "still running 5 s after the signal";
    EXPECT_EQ(exit_status(status), 0) << "stderr: " << program.err();
  }

 private:
  static std::string syslog_file() { return std::string(TOKARD_TEST_CONFIG_FILE) + ".syslog"; }

  static std::unique_ptr<Program> start(const std::string& path,
                                        const std::vector<std::string>& args) {
    std::string asan = "verify_asan_link_order=0";
    if (const char* old = std::getenv("ASAN_OPTIONS")) {
      asan = std::string(old) + ":" + asan;
    }
    return std::make_unique<Program>(
        path, args,
        std::vector<std::string>{"ASAN_OPTIONS=" + asan,
                                 std::string("LD_PRELOAD=") + TOKARD_SYSLOG_CAPTURE,
                                 "TOKARD_TEST_SYSLOG=" + syslog_file()});
  }

  static std::string read_file(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  static void clean() {
    std::remove(TOKARD_TEST_CONFIG_FILE);
    std::remove(syslog_file().c_str());
  }
};

}  // namespace tokard::test
