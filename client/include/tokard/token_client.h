// Client side of tokard's token protocol: ask tokard for the token of an ECU,
// keep it while the application works with the ECU, give it back.
//
//   tokard::client::TokenClient client({"diag-app"});
//   if (auto error = client.connect()) { /* error.message() */ }
//   if (client.acquire("rt/ECU1") == tokard::client::AcquireResult::Acquired) {
//     /* send PGN requests to ECU1; the token is renewed in the background */
//     if (auto error = client.release("rt/ECU1")) { /* error.message() */ }
//   }
//
// Threading: connect() once, before anything else; after that every member
// may be called from any thread. The destructor must not race other calls.
// The lost-token handler runs on the client's own refresh thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

namespace tokard::client {

// How an acquire ended.
enum class AcquireResult {
  Acquired,  // the client holds the token now (granted, renewed or taken over)
  Busy,      // another client holds it, or the ECU accepts no requests now
  NoEcu,     // tokard finds no ECU in the topic (not "rt/..." or "rttx/...")
  NoAnswer,  // no answer in time: tokard or the broker is not there, or the
             // client is not connected or was interrupted
};

// "acquired", "busy", "no ECU", "no answer".
const char* to_string(AcquireResult result) noexcept;

// Whether tokard serves, as it says on the broker ("system/tokard/state"):
// Online after its connect, Offline after its stop or its death; Unknown
// until the client has heard of it (or when the broker does not let the
// client read it).
enum class TokardState { Unknown, Online, Offline };

// "unknown", "online", "offline".
const char* to_string(TokardState state) noexcept;

// Errors of connect() and release(), as std::error_code values.
enum class ClientError {
  InvalidClientName = 1,  // empty, or contains '+', '#' or a NUL byte
  InvalidBroker = 2,      // empty host, or port outside 1..65535
  InvalidTiming = 3,      // answer time-out not above zero, or refresh period
                          // not above zero and below the 10 s token time-out
  BrokerUnreachable = 4,  // no connection to the broker within the time-out
  NotConnected = 5,       // connect() has not succeeded
  SendFailed = 6,         // the transport refused the message (bad topic)
};

const std::error_category& client_category() noexcept;
std::error_code make_error_code(ClientError error) noexcept;

struct ClientOptions {
  // The name tokard holds tokens in; answers come on
  // "app/<client_name>/pgn/response". Clients sharing a name share tokens.
  std::string client_name;
  std::string host = "localhost";
  int port = 1883;
  // How long acquire() waits for tokard's answer.
  std::chrono::milliseconds answer_timeout{2000};
  // How often a held token is renewed; tokard lets another client take it
  // over after 10 s without a renewal.
  std::chrono::milliseconds refresh_period{3000};
  // The MQTT client id; empty picks "<client_name>-<pid>-<n>", unique on the
  // broker, so that several processes may use one client name.
  std::string mqtt_client_id{};
  // The broker account; without a username the client connects anonymously.
  std::string username{};
  std::string password{};
};

class TokenClient {
 public:
  using LostHandler = std::function<void(const std::string& topic, AcquireResult why)>;

  // tokard hands a token to another client after this long without a renewal.
  static constexpr std::chrono::milliseconds kTokenTimeout{10000};

  explicit TokenClient(ClientOptions options);
  // Releases every held token, then disconnects.
  virtual ~TokenClient();
  TokenClient(const TokenClient&) = delete;
  TokenClient& operator=(const TokenClient&) = delete;

  // Connects to the broker and subscribes the response topic, waiting up to
  // `timeout`. Errors: InvalidClientName, InvalidBroker, InvalidTiming,
  // BrokerUnreachable. Once connected, a lost connection is re-established
  // by itself.
  [[nodiscard]] std::error_code connect(
      std::chrono::milliseconds timeout = std::chrono::seconds(3));

  // Asks for the token of the ECU that `topic` names ("rt/ECU1") and waits
  // up to the answer time-out. Acquired: the token is renewed every refresh
  // period until release(), the destructor, or a refused renewal (see
  // on_token_lost). A busy ECU is a result, never an exception.
  [[nodiscard]] AcquireResult acquire(const std::string& topic);

  // One request, nothing more: a granted token is neither renewed nor
  // released by this client, so tokard lets it go 10 s after the grant.
  [[nodiscard]] AcquireResult acquire_once(const std::string& topic);

  // Waits in the ECU's line until `deadline`: tokard grants the token at
  // once if it is free and nobody is ahead, else pushes the grant when this
  // client's turn comes. The wait request is repeated every refresh period to
  // keep the place. At the deadline or on interrupt() the client leaves the
  // line and returns the last answer (Busy while in line); a grant that
  // arrives after that is released at once. A tokard that does not answer
  // wait requests is asked as acquire() does instead, with a pause of 100 ms
  // doubling up to 2 s in between. Acquired: held and renewed as by acquire().
  [[nodiscard]] AcquireResult wait_for_token(const std::string& topic,
                                             std::chrono::steady_clock::time_point deadline);

  // Stops renewing the token and tells tokard to free it. tokard does not
  // answer releases, and ignores one for a token this client does not hold.
  // Errors: NotConnected, SendFailed.
  [[nodiscard]] std::error_code release(const std::string& topic);

  // Whether the token is held: acquired and neither released nor lost since.
  [[nodiscard]] bool holds(const std::string& topic) const;

  // For a held token, when the request was sent whose grant or renewal tokard
  // last answered: its lease runs from no earlier than that, so it is safe
  // until this time plus kTokenTimeout. Empty when the token is not held.
  [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> granted_at(
      const std::string& topic) const;

  // Called when a held token is lost: a renewal was answered Busy or NoEcu
  // (someone took it over, or the ECU's signal group became valid), or none
  // was granted for kTokenTimeout after granted_at() (NoAnswer). Runs on the
  // refresh thread; it may call every member but the destructor.
  void on_token_lost(LostHandler handler);

  // Makes every acquire and wait_for_token in progress, and every later one,
  // return at once with the answer it has (NoAnswer if none). Held tokens
  // stay held. For shutting down while waiting; not async-signal-safe.
  void interrupt();

  const std::string& client_name() const;

  // tokard's availability as last heard. While it is Offline, acquire(),
  // acquire_once() and wait_for_token() wait 300 ms for an answer (tokard
  // may be starting again), not the whole answer time-out.
  [[nodiscard]] TokardState tokard_state() const;

 private:
  class Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace tokard::client

namespace std {
template <>
struct is_error_code_enum<tokard::client::ClientError> : true_type {};
}  // namespace std
