#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "integration/program/mqtt_probe.h"
#include "integration/program/program.h"
#include "support/broker.h"

#ifndef TOKARD_PROGRAM
#error "TOKARD_PROGRAM must name the built tokard"
#endif
#ifndef TOKCTL_TEST_SIGNALS_FILE
#error "TOKCTL_TEST_SIGNALS_FILE must name the signal definitions the tests write"
#endif

namespace tokard::test {

// A private broker and the built tokard on it, with a signal group defined
// for rt/ECU1. tokard logs to its standard output, kept for failure messages.
class TokardOnBroker : public testing::Test {
 protected:
  void TearDown() override { stop_tokard(); }

  void start_tokard() {
    std::ofstream(TOKCTL_TEST_SIGNALS_FILE)
        << R"({"groups": [{"topic": "rt/ECU1", "name": "EngineState", "signals": ["Speed", "Torque"]}]})";
    m_tokard = std::make_unique<Program>(
        TOKARD_PROGRAM,
        std::vector<std::string>{"-L", "-l", "INFO", "-H", "127.0.0.1", "-p", port_text()},
        std::vector<std::string>{std::string("LAPI_RT_SIGNALS=") + TOKCTL_TEST_SIGNALS_FILE});
    // Answered means subscribed: tokard connects on its own schedule.
    MqttProbe probe(broker.port());
    ASSERT_TRUE(probe.acquire("fixture", "rt/READY").has_value()) << tokard_log();
  }

  void stop_tokard() {
    if (m_tokard) {
      m_tokard->send(SIGTERM);
      m_tokard->wait();
      m_tokard.reset();
    }
  }

  std::string tokard_log() const { return m_tokard ? m_tokard->out() : std::string(); }

  std::string port_text() const { return std::to_string(broker.port()); }

  MosquittoBroker broker;

 private:
  std::unique_ptr<Program> m_tokard;
};

}  // namespace tokard::test
