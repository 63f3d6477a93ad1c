// The seam between the transport and libmosquitto: one virtual per C call the
// transport makes on its handle, so that its logic can run against a fake.
// Return codes are libmosquitto's (MOSQ_ERR_*); after MOSQ_ERR_ERRNO, errno
// holds the cause.
#pragma once

#include <mosquitto.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ecu::lapi::com {

// What libmosquitto reports back, on the thread that runs `loop`.
class IMosquittoEvents {
 public:
  virtual ~IMosquittoEvents() = default;
  virtual void on_connect(int rc) = 0;     // CONNACK: 0 accepted, else the refusal
  virtual void on_disconnect(int rc) = 0;  // 0 after our DISCONNECT, else the loss
  virtual void on_message(const mosquitto_message& msg) = 0;
  virtual void on_publish(int mid) = 0;  // PUBACK or PUBCOMP
  virtual void on_subscribe(int mid) = 0;
  virtual void on_unsubscribe(int mid) = 0;
};

class IMosquitto {
 public:
  virtual ~IMosquitto() = default;

  // mosquitto_new with `events` as the receiver of every callback. False,
  // with errno set, when no handle could be made; call nothing else then.
  virtual bool create(const std::string& client_id, IMosquittoEvents& events) = 0;
  virtual int threaded_set(bool threaded) = 0;
  virtual int int_option(mosq_opt_t option, int value) = 0;
  // `password` may be null.
  virtual int username_pw_set(const char* username, const char* password) = 0;
  virtual int will_set(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
                       bool retain) = 0;

  virtual int connect_async(const std::string& address, int port, int keepalive_s) = 0;
  virtual int disconnect() = 0;
  // The socket, or -1 while there is none.
  virtual int socket() = 0;
  virtual int loop(int timeout_ms) = 0;
  virtual int loop_write() = 0;

  virtual int publish(int* mid, const std::string& topic, const std::vector<std::uint8_t>& payload,
                      int qos, bool retain) = 0;
  virtual int subscribe(int* mid, const std::string& topic, int qos) = 0;
  // libmosquitto only reads `topics`.
  virtual int subscribe_multiple(int* mid, const std::vector<char*>& topics, int qos) = 0;
  virtual int unsubscribe(int* mid, const std::string& topic) = 0;

  // The numeric addresses of `host` (getaddrinfo), each once, in the
  // resolver's order; empty when the name does not resolve.
  virtual std::vector<std::string> resolve(const std::string& host) = 0;
};

// libmosquitto itself; the handle is destroyed with the object.
std::unique_ptr<IMosquitto> make_mosquitto();

// What a libmosquitto code means. Call right after the failing call:
// MOSQ_ERR_ERRNO means errno holds the cause.
std::string error_text(int rc);

}  // namespace ecu::lapi::com
