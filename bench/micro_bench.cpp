// Costs of the pieces of the request path, without a broker: the frame
// adapter, the token decision on each of its branches, topic parsing, the
// container lookup, a whole acquire through the request handler, and log
// statements that are not admitted. Logging is set up as tokard runs by
// default: "tokard" modules enabled, level NOTICE.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "com/protocol.h"
#include "ecu/ecu.h"
#include "ecu/ecu_container.h"
#include "ecu/pb/pgn.pb.h"
#include "ecu/pb/rt.pb.h"
#include "lapi/logging/logging.h"
#include "reqhandler/request_handler.h"
#include "support/fake_transport.h"
#include "utils/topic.h"

namespace {

namespace logging = ecu::lapi::logging;
using ecu::lapi::com::Message;
using ecu::lapi::com::PbInternalMessageAdapter;
using ecu::lapi::pb::PgnRequestTokenRequest;
using ecu::lapi::pb::PgnRequestTokenResponse;

using tokard::protocol::kRequestTopic;
const std::string kEcuTopic = std::string(tokard::protocol::kRtPrefix) + "ECU1";
// An ECU topic for the i-th ECU.
std::string ecu_topic(std::size_t i) {
  return std::string(tokard::protocol::kRtPrefix) + "ECU" + std::to_string(i);
}
constexpr const char* kGroupJson =
    R"({"groups": [{"topic": "rt/ECU1", "name": "EngineState", "signals": ["Speed"]}]})";

PgnRequestTokenRequest acquire_request(const std::string& topic, const std::string& client) {
  PgnRequestTokenRequest request;
  request.set_action(PgnRequestTokenRequest::ACQUIRE);
  request.set_request_topic(topic);
  request.set_client_name(client);
  return request;
}

PgnRequestTokenResponse acquired_response() {
  PgnRequestTokenResponse response;
  response.set_request_topic(kEcuTopic);
  response.set_result(PgnRequestTokenResponse::ACQUIRED);
  return response;
}

template <typename T>
Message frame_of(const T& body) {
  return tokard::protocol::frame(body);
}

// Publishes go nowhere, so that a long run does not pile them up.
class CountingTransport : public tokard::test::FakeTransportClient {
 public:
  bool publish(const std::string& /*topic*/, const Message& msg) override {
    bytes += msg.payload.size();
    return true;
  }
  std::size_t bytes = 0;
};

// Every clock reading is 11 s after the previous one: each acquire by another
// client finds the holder silent for too long.
class SteppingEcu : public tokard::Ecu {
 public:
  using Ecu::Ecu;

 protected:
  Clock::time_point now() const override { return m_now += std::chrono::seconds(11); }

 private:
  mutable Clock::time_point m_now{};
};

// --- frames ---------------------------------------------------------------

void BM_SerializeRequest(benchmark::State& state) {
  const PgnRequestTokenRequest request = acquire_request(kEcuTopic, "app1");
  for (auto _ : state) {
    PbInternalMessageAdapter<PgnRequestTokenRequest> adapter;
    auto built = adapter.serialize(request);
    benchmark::DoNotOptimize(built);
  }
}
BENCHMARK(BM_SerializeRequest);

void BM_DeserializeRequest(benchmark::State& state) {
  const Message msg = frame_of(acquire_request(kEcuTopic, "app1"));
  for (auto _ : state) {
    PbInternalMessageAdapter<PgnRequestTokenRequest> adapter;
    auto outcome = adapter.deserialize(msg);
    benchmark::DoNotOptimize(outcome);
  }
}
BENCHMARK(BM_DeserializeRequest);

void BM_SerializeResponse(benchmark::State& state) {
  const PgnRequestTokenResponse response = acquired_response();
  for (auto _ : state) {
    PbInternalMessageAdapter<PgnRequestTokenResponse> adapter;
    auto built = adapter.serialize(response);
    benchmark::DoNotOptimize(built);
  }
}
BENCHMARK(BM_SerializeResponse);

void BM_DeserializeResponse(benchmark::State& state) {
  const Message msg = frame_of(acquired_response());
  for (auto _ : state) {
    PbInternalMessageAdapter<PgnRequestTokenResponse> adapter;
    auto outcome = adapter.deserialize(msg);
    benchmark::DoNotOptimize(outcome);
  }
}
BENCHMARK(BM_DeserializeResponse);

// --- acquire_token, one benchmark per branch -------------------------------

void BM_AcquireRefresh(benchmark::State& state) {
  tokard::Ecu ecu("ECU1");
  const std::string client = "app1";
  (void)ecu.acquire_token(client);
  for (auto _ : state) {
    benchmark::DoNotOptimize(ecu.acquire_token(client));
  }
}
BENCHMARK(BM_AcquireRefresh);

void BM_AcquireGrantOnFree(benchmark::State& state) {
  constexpr std::size_t kBatch = 1024;
  const std::string client = "app1";
  std::vector<std::unique_ptr<tokard::Ecu>> ecus;
  std::size_t next = kBatch;
  for (auto _ : state) {
    if (next == kBatch) {
      state.PauseTiming();
      ecus.clear();
      for (std::size_t i = 0; i < kBatch; ++i) {
        ecus.push_back(std::make_unique<tokard::Ecu>("ECU" + std::to_string(i)));
      }
      next = 0;
      state.ResumeTiming();
    }
    benchmark::DoNotOptimize(ecus[next++]->acquire_token(client));
  }
}
BENCHMARK(BM_AcquireGrantOnFree);

void BM_AcquireTakeOver(benchmark::State& state) {
  SteppingEcu ecu("ECU1");
  const std::string clients[] = {"app1", "app2"};
  (void)ecu.acquire_token(clients[0]);
  std::size_t turn = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ecu.acquire_token(clients[turn]));
    turn ^= 1;
  }
}
BENCHMARK(BM_AcquireTakeOver);

void BM_AcquireRefusedActiveClient(benchmark::State& state) {
  tokard::Ecu ecu("ECU1");
  (void)ecu.acquire_token("app1");
  const std::string other = "app2";
  for (auto _ : state) {
    benchmark::DoNotOptimize(ecu.acquire_token(other));
  }
}
BENCHMARK(BM_AcquireRefusedActiveClient);

void BM_AcquireRefusedRequestActive(benchmark::State& state) {
  ecu::lapi::pb::RtSignalGroup group;
  group.set_name("EngineState");
  auto* signal = group.add_signals();
  signal->set_name("Speed");
  signal->set_data(std::string(4, '\0'));
  signal->set_status(0);  // every status 0: the group is valid, requests are blocked
  tokard::Ecu ecu("ECU1");
  ecu.message(kEcuTopic, frame_of(group));
  if (!ecu.request_active()) {
    state.SkipWithError("the signal group did not block requests");
    return;
  }
  const std::string client = "app1";
  for (auto _ : state) {
    benchmark::DoNotOptimize(ecu.acquire_token(client));
  }
}
BENCHMARK(BM_AcquireRefusedRequestActive);

// --- topics and the container ----------------------------------------------

void BM_TopicParse(benchmark::State& state) {
  const std::string topic =
      state.range(0) == 0 ? kEcuTopic
                          : std::string(tokard::protocol::kRtPrefix) + "bus0/segment/ECU12345";
  for (auto _ : state) {
    auto outcome = tokard::utils::ecu_from_topic(topic);
    benchmark::DoNotOptimize(outcome);
  }
}
BENCHMARK(BM_TopicParse)->ArgName("long")->Arg(0)->Arg(1);

// A known topic among range(0) ECUs.
void BM_ContainerLookupKnown(benchmark::State& state) {
  auto transport = std::make_shared<tokard::test::FakeTransportClient>();
  tokard::EcuContainer container(transport);
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    (void)container.ecu_from_topic(ecu_topic(i));
  }
  const std::string topic = ecu_topic(static_cast<std::size_t>(state.range(0) / 2));
  for (auto _ : state) {
    auto ecu = container.ecu_from_topic(topic);
    benchmark::DoNotOptimize(ecu);
  }
}
BENCHMARK(BM_ContainerLookupKnown)->ArgName("ecus")->Arg(1)->Arg(10000);

// --- a whole acquire -------------------------------------------------------

// RequestHandler::message for an acquire of a known ECU by its holder (a
// refresh), among range(0) ECUs: decode, checks, lookup, decision, encode,
// publish to a transport that drops it.
void BM_HandlerAcquire(benchmark::State& state) {
  auto transport = std::make_shared<CountingTransport>();
  tokard::RequestHandler handler(transport);
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    handler.message(kRequestTopic, frame_of(acquire_request(ecu_topic(i), "app1")));
  }
  const std::string topic = ecu_topic(static_cast<std::size_t>(state.range(0) / 2));
  const Message msg = frame_of(acquire_request(topic, "app1"));
  for (auto _ : state) {
    handler.message(kRequestTopic, msg);
  }
  benchmark::DoNotOptimize(transport->bytes);
}
BENCHMARK(BM_HandlerAcquire)->ArgName("ecus")->Arg(1)->Arg(10000);

// --- logging ---------------------------------------------------------------

void BM_LogNotAdmitted(benchmark::State& state) {
  const logging::LogModulePtr log = logging::module("tokard.reqhandler.acquire");
  const std::string name = "ECU1";
  const std::string topic = kEcuTopic;
  const std::string client = "app1";
  for (auto _ : state) {
    LAPI_LOG(INFO, log) << "Token acquired for '" << name << "' on " << topic << " by " << client;
  }
}
BENCHMARK(BM_LogNotAdmitted);

// What the frame adapter does at each call before anything else.
void BM_LogModuleLookup(benchmark::State& state) {
  for (auto _ : state) {
    auto log = logging::module("lapi.com.messageadapter");
    benchmark::DoNotOptimize(log);
  }
}
BENCHMARK(BM_LogModuleLookup);

// Signal definitions for BM_AcquireRefusedRequestActive, in a file that the
// process-wide adapter reads on first use.
std::string write_signal_definitions() {
  const std::string path = "/tmp/tokard_microbench_" + std::to_string(getpid()) + ".json";
  std::ofstream(path) << kGroupJson;
  setenv("LAPI_RT_SIGNALS", path.c_str(), 1);
  return path;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string definitions = write_signal_definitions();
  logging::configure_logging("");
  logging::enable("tokard", true);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::remove(definitions.c_str());
  return 0;
}
