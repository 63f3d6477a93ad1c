// A stand-in for libmosquitto behind the transport's seam: it records each
// call as a line, answers with the codes a test sets, and lets the test play
// the broker's side through `events`. Single-threaded: no loop thread runs.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lapi/com/mosquitto_api.h"

namespace tokard::test {

// What the test sets and reads; it outlives the client that owns the fake.
struct MosquittoScript {
  std::vector<std::string> calls;  // "subscribe t/a q1", "connect_async 10.0.0.1:1883", ...
  std::map<std::string, int> rc;   // the code a call returns, by name; success otherwise
  std::map<std::string, std::vector<std::string>> names;  // what resolve answers
  int socket = -1;
  int last_mid = 0;
  ecu::lapi::com::IMosquittoEvents* events = nullptr;
  std::function<void()> on_loop;  // the broker's side of a pass of the network loop
};

class FakeMosquitto : public ecu::lapi::com::IMosquitto {
 public:
  using Bytes = std::vector<std::uint8_t>;
  explicit FakeMosquitto(MosquittoScript& script) : m_s(script) {}

  bool create(const std::string& /*client_id*/, ecu::lapi::com::IMosquittoEvents& events) override {
    m_s.events = &events;
    return answer("create", "") == MOSQ_ERR_SUCCESS;
  }
  int threaded_set(bool /*threaded*/) override { return MOSQ_ERR_SUCCESS; }
  int int_option(mosq_opt_t /*option*/, int /*value*/) override { return MOSQ_ERR_SUCCESS; }
  int username_pw_set(const char* username, const char* /*password*/) override {
    return answer("username_pw_set", username);
  }
  int will_set(const std::string& topic, const Bytes& /*payload*/, int qos, bool /*r*/) override {
    return answer("will_set", topic + " q" + std::to_string(qos));
  }
  int connect_async(const std::string& address, int port, int /*keepalive_s*/) override {
    return answer("connect_async", address + ":" + std::to_string(port));
  }
  int disconnect() override {
    m_s.socket = -1;  // libmosquitto closes the socket once the DISCONNECT is out
    return answer("disconnect", "");
  }
  int socket() override { return m_s.socket; }
  int loop(int /*timeout_ms*/) override {
    if (m_s.on_loop) {
      m_s.on_loop();
    }
    return answer("loop", "");
  }
  int loop_write() override { return answer("loop_write", ""); }
  int publish(int* mid, const std::string& topic, const Bytes& /*payload*/, int qos,
              bool /*retain*/) override {
    return answer("publish", topic + " q" + std::to_string(qos), mid);
  }
  int subscribe(int* mid, const std::string& topic, int qos) override {
    return answer("subscribe", topic + " q" + std::to_string(qos), mid);
  }
  int subscribe_multiple(int* mid, const std::vector<char*>& topics, int qos) override {
    std::string list;
    for (const char* topic : topics) {
      list += std::string(topic) + " ";
    }
    return answer("subscribe_multiple", list + "q" + std::to_string(qos), mid);
  }
  int unsubscribe(int* mid, const std::string& topic) override {
    return answer("unsubscribe", topic, mid);
  }
  std::vector<std::string> resolve(const std::string& host) override {
    m_s.calls.push_back("resolve " + host);
    return m_s.names[host];
  }

 private:
  int answer(const std::string& call, const std::string& args, int* mid = nullptr) {
    m_s.calls.push_back(args.empty() ? call : call + " " + args);
    if (mid != nullptr) {
      *mid = ++m_s.last_mid;
    }
    const auto it = m_s.rc.find(call);
    return it == m_s.rc.end() ? MOSQ_ERR_SUCCESS : it->second;
  }
  MosquittoScript& m_s;
};

}  // namespace tokard::test
