// The request handler on a recording fake transport, driven by a sequence of
// records, each `op:u8 length:u16le bytes[length]`:
//   0  the bytes as a frame on "system/tokard/request"
//   1  "topic\0frame": the frame handed to the handler on any topic
//   2  a well-formed request: action, client and topic picked by the first
//      three bytes, the rest "client\0topic" for the input's own choice
//   3  the bytes (after an index byte) as a frame on a subscribed RT topic
//   4  a defined signal group (index, group, statuses) on a subscribed topic
// After every request the answers are checked against what a client sees:
// one response per acquire, none otherwise, and never two holders at once.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <google/protobuf/unknown_field_set.h>

#include "com/message_adapter.h"
#include "ecu/ecu.h"
#include "ecu/pb/pgn.pb.h"
#include "fuzz_support.h"
#include "lapi/rt/signal_adapter.h"
#include "reqhandler/request_handler.h"
#include "support/fake_transport.h"
#include "utils/topic.h"

namespace {

using ecu::lapi::com::Message;
using ecu::lapi::com::PbInternalMessageAdapter;
using ecu::lapi::pb::PgnRequestTokenRequest;
using ecu::lapi::pb::PgnRequestTokenResponse;
using tokard::fuzz::violated;

enum Op : std::uint8_t { kRawRequest, kAnyTopic, kRequest, kRtRaw, kRtGroup, kOpCount };

const std::vector<std::string> kClients = {"app1", "app2", "app3"};
// RT topics of the defined groups, odd spellings of ECU names, and topics
// that name no ECU.
const std::vector<std::string> kTopics = {
    "rt/ECU1", "rttx/ECU1", "rt/bus0/ECU1", "rt/ECU2", "rt/bus0/ECU3", "rttx/bus1/ECU3",
    "rt/  ", "rt/", "rt/ECU1/", "RT/ECU1", "system/tokard/request"};

// A token decision older than this may be taken over; the checks that rely
// on the holder staying put are skipped once a run lasts that long.
constexpr auto kTakeoverSafe = std::chrono::seconds(9);

class Session {
 public:
  Session()
      : m_transport(std::make_shared<tokard::test::FakeTransportClient>()),
        m_handler(m_transport),
        m_start(std::chrono::steady_clock::now()) {}

  void run(const std::uint8_t* data, std::size_t size) {
    std::size_t at = 0;
    while (at + 3 <= size) {
      const auto op = static_cast<Op>(data[at] % kOpCount);
      std::size_t length = data[at + 1] | (static_cast<std::size_t>(data[at + 2]) << 8);
      at += 3;
      length = std::min(length, size - at);
      const std::string bytes(reinterpret_cast<const char*>(data + at), length);
      at += length;
      step(op, bytes);
    }
  }

 private:
  void step(Op op, const std::string& bytes) {
    switch (op) {
      case kRawRequest:
        request_on(tokard::RequestHandler::kRequestTopic, bytes);
        break;
      case kAnyTopic: {
        const auto nul = bytes.find('\0');
        const std::string topic = bytes.substr(0, nul);
        request_on(topic, nul == std::string::npos ? std::string() : bytes.substr(nul + 1));
        break;
      }
      case kRequest:
        well_formed_request(bytes);
        break;
      case kRtRaw:
        if (!bytes.empty()) {
          rt_on(static_cast<std::uint8_t>(bytes[0]), message(bytes.substr(1)));
        }
        break;
      case kRtGroup:
        rt_group(bytes);
        break;
      case kOpCount:
        break;
    }
  }

  static Message message(const std::string& bytes) {
    return tokard::fuzz::to_message(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                    bytes.size());
  }

  void well_formed_request(const std::string& bytes) {
    const auto pick = [&](std::size_t i) {
      return i < bytes.size() ? static_cast<std::uint8_t>(bytes[i]) : std::uint8_t{0};
    };
    const std::string rest = bytes.size() > 3 ? bytes.substr(3) : std::string();
    const auto nul = rest.find('\0');
    const std::string own_client = rest.substr(0, nul);
    const std::string own_topic = nul == std::string::npos ? std::string() : rest.substr(nul + 1);

    // Low bits: the action, the last choice a number the schema does not
    // know (sent as a raw field, as a newer client would); high bits leave
    // the client name or the topic out.
    const PgnRequestTokenRequest::Action actions[] = {PgnRequestTokenRequest::ACQUIRE,
                                                      PgnRequestTokenRequest::RELEASE,
                                                      PgnRequestTokenRequest::UNSPECIFIED};
    PgnRequestTokenRequest body;
    if (pick(0) % 4 < 3) {
      body.set_action(actions[pick(0) % 4]);
    } else {
      body.mutable_unknown_fields()->AddVarint(PgnRequestTokenRequest::kActionFieldNumber, 7);
    }
    const std::size_t client = pick(1) % (kClients.size() + 1);
    if ((pick(0) & 0x80) == 0) {
      body.set_client_name(client < kClients.size() ? kClients[client] : own_client);
    }
    const std::size_t topic = pick(2) % (kTopics.size() + 1);
    if ((pick(0) & 0x40) == 0) {
      body.set_request_topic(topic < kTopics.size() ? kTopics[topic] : own_topic);
    }
    const auto framed = tokard::fuzz::frame(body);
    request_on(tokard::RequestHandler::kRequestTopic, std::string(framed.begin(), framed.end()));
  }

  void rt_group(const std::string& bytes) {
    if (bytes.size() < 2) {
      return;
    }
    const auto& groups = tokard::fuzz::defined_groups();
    const auto& def = groups[static_cast<std::uint8_t>(bytes[1]) % groups.size()];
    std::vector<std::uint32_t> statuses;
    for (std::size_t i = 2; i < bytes.size(); ++i) {
      const auto b = static_cast<std::uint8_t>(bytes[i]);
      statuses.push_back(b % 2 == 0 ? 0 : b);
    }
    Message msg;
    msg.payload = tokard::fuzz::frame(tokard::fuzz::group(def, statuses));
    rt_on(static_cast<std::uint8_t>(bytes[0]), msg);
  }

  // Delivers to the index-th RT topic that has observers, as the broker would.
  void rt_on(std::uint8_t index, const Message& msg) {
    std::vector<std::string> topics;
    for (const auto& [topic, observers] : m_transport->observers) {
      if (topic != tokard::RequestHandler::kRequestTopic) {
        topics.push_back(topic);
      }
    }
    if (topics.empty()) {
      return;
    }
    const std::size_t published = m_transport->published.size();
    m_transport->deliver(topics[index % topics.size()], msg);
    TOKARD_FUZZ_CHECK(m_transport->published.size() == published);
  }

  std::shared_ptr<tokard::Ecu> find_ecu(const std::string& name) const {
    for (const auto& [topic, observers] : m_transport->observers) {
      for (const auto& observer : observers) {
        auto ecu = std::dynamic_pointer_cast<tokard::Ecu>(observer);
        if (ecu && ecu->m_name == name) {
          return ecu;
        }
      }
    }
    return nullptr;
  }

  bool subscribed(const std::string& topic) const {
    return m_transport->observers.count(topic) != 0;
  }

  void request_on(const std::string& topic, const std::string& bytes) {
    const Message msg = message(bytes);
    // What the request means to a client, decoded on the side.
    const auto decoded = PbInternalMessageAdapter<PgnRequestTokenRequest>().deserialize(msg);
    const PgnRequestTokenRequest& request = decoded.value;
    const bool acted = topic == tokard::RequestHandler::kRequestTopic && decoded.ok &&
                       request.has_client_name() && !request.client_name().empty() &&
                       request.has_request_topic() && !request.request_topic().empty();
    const bool acquire = acted && request.action() == PgnRequestTokenRequest::ACQUIRE;
    const bool release = acted && request.action() == PgnRequestTokenRequest::RELEASE;
    const auto name = tokard::utils::ecu_from_topic(request.request_topic());

    const auto before = name.ok ? find_ecu(name.value) : nullptr;
    const std::string holder_before = before ? before->holder() : std::string();
    const bool blocked_before = before && before->request_active();
    const std::size_t published = m_transport->published.size();
    const bool undisturbed = std::chrono::steady_clock::now() - m_start < kTakeoverSafe;

    // The request topic goes the daemon's way, through the subscription
    // wrapper; any other topic is handed to the handler directly, as a
    // misrouted delivery would be.
    if (topic == tokard::RequestHandler::kRequestTopic) {
      m_transport->deliver(topic, msg);
    } else {
      m_handler.message(topic, msg);
    }

    if (!acquire) {
      TOKARD_FUZZ_CHECK(m_transport->published.size() == published);
      if (release && before && undisturbed) {
        const std::string expected = holder_before == request.client_name() ? "" : holder_before;
        TOKARD_FUZZ_CHECK(before->holder() == expected);
      }
      return;
    }

    TOKARD_FUZZ_CHECK(m_transport->published.size() == published + 1);
    const auto& answer = m_transport->published.back();
    TOKARD_FUZZ_CHECK(answer.topic == "app/" + request.client_name() + "/pgn/response");
    TOKARD_FUZZ_CHECK(answer.msg.qos == 1);
    const auto response =
        PbInternalMessageAdapter<PgnRequestTokenResponse>().deserialize(answer.msg);
    TOKARD_FUZZ_CHECK(response.ok);
    TOKARD_FUZZ_CHECK(response.value.request_topic() == request.request_topic());

    const auto result = response.value.result();
    if (!name.ok) {
      TOKARD_FUZZ_CHECK(result == PgnRequestTokenResponse::NO_ECU);
      return;
    }
    const auto ecu = find_ecu(name.value);
    TOKARD_FUZZ_CHECK(ecu != nullptr);
    TOKARD_FUZZ_CHECK(before == nullptr || ecu == before);
    TOKARD_FUZZ_CHECK(subscribed(request.request_topic()));
    TOKARD_FUZZ_CHECK(subscribed("rttx/" + request.request_topic().substr(3)));
    if (result == PgnRequestTokenResponse::ACQUIRED) {
      TOKARD_FUZZ_CHECK(!blocked_before);
      TOKARD_FUZZ_CHECK(ecu->holder() == request.client_name());
      if (undisturbed) {
        TOKARD_FUZZ_CHECK(holder_before.empty() || holder_before == request.client_name());
      }
    } else {
      TOKARD_FUZZ_CHECK(result == PgnRequestTokenResponse::BUSY);
      TOKARD_FUZZ_CHECK(ecu->holder() == holder_before);
      if (undisturbed) {
        TOKARD_FUZZ_CHECK(blocked_before ||
                          (!holder_before.empty() && holder_before != request.client_name()));
      }
    }
  }

  std::shared_ptr<tokard::test::FakeTransportClient> m_transport;
  tokard::RequestHandler m_handler;
  std::chrono::steady_clock::time_point m_start;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  std::istringstream definitions(tokard::fuzz::kSignalDefinitions);
  if (!ecu::lapi::rt::SignalAdapter::instance().load(definitions, "fuzz definitions")) {
    violated("fixed signal definitions do not load");
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A fresh handler per input: the same input always meets the same state.
  Session session;
  session.run(data, size);
  return 0;
}
