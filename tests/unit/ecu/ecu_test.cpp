#include "ecu/ecu.h"

#include <gtest/gtest.h>

#include "lapi/rt/signal_adapter.h"
#include "support/log_capture.h"
#include "support/rt_frames.h"

using namespace std::chrono_literals;
using tokard::test::LogCapture;
using tokard::test::rt_frame;

namespace {

const std::string kBytes("\x05\x1a\x00\xff", 4);

// An Ecu whose clock only moves when told to.
class ClockedEcu : public tokard::Ecu {
 public:
  using Ecu::Ecu;
  void advance(Clock::duration by) { m_now += by; }

 protected:
  Clock::time_point now() const override { return m_now; }

 private:
  Clock::time_point m_now{5h};
};

class EcuTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ecu::lapi::rt::SignalAdapter::instance().load(
        tokard::test::write_temp_file("ecu_signals.json", R"({"groups": [
        {"topic": "rt/E1", "name": "G", "signals": ["S", "T"]},
        {"topic": "bus/E1", "name": "G", "signals": ["S", "T"]},
        {"topic": "rt/quiet/E1", "name": "Quiet", "signals": []}]})"));
  }
  static ecu::lapi::com::Message group(std::uint32_t t_status) {
    return rt_frame("G", {{"S", kBytes, 0}, {"T", "\x0a\x0b\x0c\x0d\x0e", t_status}});
  }
  ClockedEcu ecu{"E1"};
};
using AnEcu = EcuTest;

TEST_F(AnEcu, GrantsAFreeTokenToTheFirstClient) {
  LogCapture log;
  EXPECT_TRUE(ecu.acquire_token("A"));
  EXPECT_EQ(ecu.holder(), "A");
  EXPECT_EQ(log.matching("tokard.ecu:"),
            (std::vector<std::string>{"DEBUG tokard.ecu: [E1]  (before acquire) m_request_active: "
                                      "FALSE m_token_taken_by_client: ",
                                      "DEBUG tokard.ecu: [E1] no client has token, allow A"}));
}

TEST_F(AnEcu, HandsTheTokenToAnotherClientOnlyAfterMoreThanTenSecondsSinceTheGrant) {
  ecu.acquire_token("A");
  ecu.advance(9s);
  LogCapture log;
  EXPECT_FALSE(ecu.acquire_token("B"));
  ecu.advance(1s);
  EXPECT_FALSE(ecu.acquire_token("B"));
  ecu.advance(1ns);
  EXPECT_TRUE(ecu.acquire_token("B"));
  EXPECT_FALSE(ecu.acquire_token("A"));
  EXPECT_EQ(log.matching("] A"),
            (std::vector<std::string>{"INFO tokard.ecu: [E1] Active client: A",
                                      "INFO tokard.ecu: [E1] Active client: A",
                                      "DEBUG tokard.ecu: [E1] A had token to long, allow B",
                                      "INFO tokard.ecu: [E1] Active client: B"}));
}

TEST_F(AnEcu, RefreshesForItsHolderEvenAfterTheTimeOut) {
  ecu.acquire_token("A");
  ecu.advance(1min);
  LogCapture log;
  EXPECT_TRUE(ecu.acquire_token("A"));
  EXPECT_TRUE(log.has("INFO tokard.ecu: [E1] client A token refreshed"));
  ecu.advance(10s);
  EXPECT_FALSE(ecu.acquire_token("B"));
  ecu.advance(1ns);
  EXPECT_TRUE(ecu.acquire_token("B"));
}

TEST_F(AnEcu, TreatsAnEmptyClientNameOnAFreeTokenAsARefreshOfNobody) {
  LogCapture log;
  EXPECT_TRUE(ecu.acquire_token(""));
  EXPECT_EQ(ecu.holder(), "");
  EXPECT_TRUE(ecu.acquire_token("B"));
  EXPECT_TRUE(log.has("INFO tokard.ecu: [E1] client  token refreshed"));
  EXPECT_TRUE(log.has("DEBUG tokard.ecu: [E1] no client has token, allow B"));
}

TEST_F(AnEcu, ReleasesTheTokenOnlyForItsHolder) {
  ecu.acquire_token("A");
  LogCapture log;
  EXPECT_FALSE(ecu.release_token("B"));
  EXPECT_FALSE(ecu.release_token(""));
  EXPECT_EQ(ecu.holder(), "A");
  EXPECT_TRUE(ecu.release_token("A"));
  EXPECT_EQ(ecu.holder(), "");
  EXPECT_TRUE(ecu.acquire_token("C"));
  EXPECT_TRUE(log.has("DEBUG tokard.ecu: [E1] Token taken by A release from B prohibited"));
  EXPECT_TRUE(log.has("DEBUG tokard.ecu: [E1] Token taken by A release from  prohibited"));
  EXPECT_TRUE(log.has("INFO tokard.ecu: [E1] Token explicitly released for client A"));
}

TEST_F(AnEcu, ReleasesAFreeTokenSilently) {
  LogCapture log;
  EXPECT_TRUE(ecu.release_token("A"));
  EXPECT_TRUE(log.matching("tokard.ecu:").empty());
}

TEST_F(AnEcu, RefusesEveryoneWhileItsSignalGroupIsValid) {
  ecu.acquire_token("A");
  ecu.message("rt/E1", group(0));
  ecu.advance(1min);
  LogCapture log;
  EXPECT_FALSE(ecu.acquire_token("A"));
  EXPECT_FALSE(ecu.acquire_token("B"));
  EXPECT_EQ(ecu.holder(), "A");
  EXPECT_EQ(log.matching("tokard.ecu:"),
            std::vector<std::string>(2,
                                     "DEBUG tokard.ecu: [E1]  (before acquire) m_request_active: "
                                     "TRUE m_token_taken_by_client: A"));
}

TEST_F(AnEcu, LogsTheValidGroupAndEachSignalsFirstFourBytes) {
  LogCapture log;
  ecu.message("rttx/E1", group(0));
  EXPECT_TRUE(ecu.request_active());
  EXPECT_EQ(log.matching("tokard.ecu:"),
            (std::vector<std::string>{"DEBUG tokard.ecu: [E1] SignalGroup G is valid: YES",
                                      "DEBUG tokard.ecu: [E1] S - 05 1a 0 ff  - Status: 0",
                                      "DEBUG tokard.ecu: [E1] T - 0a b c d  - Status: 0",
                                      "INFO tokard.ecu: [E1] Accept requests: NO 'rttx/E1'"}));
}

TEST_F(AnEcu, FreesTheTokenAtOnceWhenItsGroupIsNotValid) {
  ecu.acquire_token("A");
  ecu.message("rt/E1", group(0));
  LogCapture log;
  ecu.message("bus/E1", group(7));
  EXPECT_EQ(ecu.holder(), "");
  EXPECT_TRUE(ecu.acquire_token("B"));
  EXPECT_TRUE(log.has("DEBUG tokard.ecu: [E1] SignalGroup G is valid: NO"));
  EXPECT_TRUE(log.has("DEBUG tokard.ecu: [E1] T - 0a b c d  - Status: 7"));
  EXPECT_TRUE(log.has("INFO tokard.ecu: [E1] Accept requests: YES 'bus/E1'"));
  EXPECT_TRUE(log.has("DEBUG tokard.ecu: [E1] no client has token, allow B"));
}

TEST_F(AnEcu, KeepsItsStateWhenAMessageCannotBeUnpacked) {
  ecu.acquire_token("A");
  LogCapture log("ERROR");
  ecu.message("rttx/E1", ecu::lapi::com::Message{});
  EXPECT_EQ(ecu.holder(), "A");
  ecu.message("rt/E1", group(0));
  ecu.message("rttx/x/E1", group(7));  // unpacked as rt/x/E1, which has no definition
  EXPECT_TRUE(ecu.request_active());
  EXPECT_EQ(ecu.holder(), "A");
  EXPECT_EQ(log.matching("tokard.ecu:"),
            (std::vector<std::string>{
                "ERROR tokard.ecu: [E1] unable to deserialize message for rttx/E1",
                "ERROR tokard.ecu: [E1] unable to deserialize message for rttx/x/E1"}));
}

TEST_F(AnEcu, LogsAGroupWithoutSignalsAsValid) {
  LogCapture log;
  ecu.message("rttx/quiet/E1", rt_frame("Quiet", {}));
  EXPECT_EQ(
      log.matching("tokard.ecu:"),
      (std::vector<std::string>{"DEBUG tokard.ecu: [E1] SignalGroup Quiet is valid: YES",
                                "INFO tokard.ecu: [E1] Accept requests: NO 'rttx/quiet/E1'"}));
}

}  // namespace
