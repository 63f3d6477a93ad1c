// The seam's real side: each call forwards to libmosquitto on the one handle.
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <system_error>

#include "lapi/com/mosquitto_api.h"

namespace ecu::lapi::com {
namespace {

class Mosquitto : public IMosquitto {
 public:
  bool create(const std::string& client_id, IMosquittoEvents& events) override {
    static std::once_flag library_ready;
    std::call_once(library_ready, [] { mosquitto_lib_init(); });
    // libmosquitto refuses an empty id but makes up one for a null id.
    m_handle.reset(mosquitto_new(client_id.empty() ? nullptr : client_id.c_str(), true, &events));
    if (!m_handle) {
      return false;
    }
    mosquitto* handle = m_handle.get();
    mosquitto_connect_callback_set(handle, &Mosquitto::connected);
    mosquitto_disconnect_callback_set(handle, &Mosquitto::disconnected);
    mosquitto_message_callback_set(handle, &Mosquitto::message);
    mosquitto_publish_callback_set(handle, &Mosquitto::published);
    mosquitto_subscribe_callback_set(handle, &Mosquitto::subscribed);
    mosquitto_unsubscribe_callback_set(handle, &Mosquitto::unsubscribed);
    return true;
  }
  int threaded_set(bool threaded) override {
    return mosquitto_threaded_set(m_handle.get(), threaded);
  }
  int int_option(mosq_opt_t option, int value) override {
    return mosquitto_int_option(m_handle.get(), option, value);
  }
  int username_pw_set(const char* username, const char* password) override {
    return mosquitto_username_pw_set(m_handle.get(), username, password);
  }
  int will_set(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
               bool retain) override {
    return mosquitto_will_set(m_handle.get(), topic.c_str(), static_cast<int>(payload.size()),
                              payload.data(), qos, retain);
  }
  int connect_async(const std::string& address, int port, int keepalive_s) override {
    return mosquitto_connect_async(m_handle.get(), address.c_str(), port, keepalive_s);
  }
  int disconnect() override { return mosquitto_disconnect(m_handle.get()); }
  int socket() override { return mosquitto_socket(m_handle.get()); }
  int loop(int timeout_ms) override { return mosquitto_loop(m_handle.get(), timeout_ms, 1); }
  int loop_write() override { return mosquitto_loop_write(m_handle.get(), 1); }
  int publish(int* mid, const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
              bool retain) override {
    return mosquitto_publish(m_handle.get(), mid, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), qos, retain);
  }
  int subscribe(int* mid, const std::string& topic, int qos) override {
    return mosquitto_subscribe(m_handle.get(), mid, topic.c_str(), qos);
  }
  int subscribe_multiple(int* mid, const std::vector<char*>& topics, int qos) override {
    return mosquitto_subscribe_multiple(m_handle.get(), mid, static_cast<int>(topics.size()),
                                        topics.data(), qos, 0, nullptr);
  }
  int unsubscribe(int* mid, const std::string& topic) override {
    return mosquitto_unsubscribe(m_handle.get(), mid, topic.c_str());
  }

  std::vector<std::string> resolve(const std::string& host) override {
    std::vector<std::string> addresses;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
      return addresses;
    }
    for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
      char text[NI_MAXHOST];
      if (getnameinfo(a->ai_addr, a->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) ==
              0 &&
          std::find(addresses.begin(), addresses.end(), text) == addresses.end()) {
        addresses.emplace_back(text);
      }
    }
    freeaddrinfo(found);
    return addresses;
  }

 private:
  static IMosquittoEvents& events(void* self) { return *static_cast<IMosquittoEvents*>(self); }
  static void connected(mosquitto* /*handle*/, void* self, int rc) noexcept {
    events(self).on_connect(rc);
  }
  static void disconnected(mosquitto* /*handle*/, void* self, int rc) noexcept {
    events(self).on_disconnect(rc);
  }
  static void message(mosquitto* /*handle*/, void* self, const mosquitto_message* msg) noexcept {
    if (msg != nullptr) {
      events(self).on_message(*msg);
    }
  }
  static void published(mosquitto* /*handle*/, void* self, int mid) noexcept {
    events(self).on_publish(mid);
  }
  static void subscribed(mosquitto* /*handle*/, void* self, int mid, int /*count*/,
                         const int* /*granted*/) noexcept {
    events(self).on_subscribe(mid);
  }
  static void unsubscribed(mosquitto* /*handle*/, void* self, int mid) noexcept {
    events(self).on_unsubscribe(mid);
  }

  std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)> m_handle{nullptr, &mosquitto_destroy};
};

}  // namespace

std::unique_ptr<IMosquitto> make_mosquitto() { return std::make_unique<Mosquitto>(); }

std::string error_text(int rc) {
  if (rc == MOSQ_ERR_ERRNO) {
    return std::generic_category().message(errno);
  }
  return mosquitto_strerror(rc);
}

}  // namespace ecu::lapi::com
