// The RT topic grammar, and the ECU container's records and subscriptions.
#include <gtest/gtest.h>

#include "ecu/ecu_container.h"
#include "support/fake_transport.h"
#include "support/log_capture.h"
#include "utils/topic.h"

namespace tokard::test {
namespace {

TEST(AnRtTopic, NamesItsEcuInTheLastSegment) {
  struct Case {
    std::string topic, ecu, error;
  };
  const std::string kNotRt = "Not an RT topic!", kNoEcu = "Unable to find ECU part of topic!";
  for (const Case& c : std::vector<Case>{{"rt/ECU1", "ECU1", ""},
                                         {"rttx/ECU1", "ECU1", ""},
                                         {"rt/a/b/ECU1", "ECU1", ""},
                                         {"rt/  ECU1 \t", "ECU1", ""},
                                         {"rt/\n\v E1 X\f\r", "E1 X", ""},
                                         {"rt/\xa0"
                                          "E1",
                                          "\xa0"
                                          "E1",
                                          ""},
                                         {"rt/   ", "", ""},
                                         {"rt/", "", kNoEcu},
                                         {"rttx/", "", kNoEcu},
                                         {"rt/ECU1/", "", kNoEcu},
                                         {"RT/ECU1", "", kNotRt},
                                         {" rt/ECU1", "", kNotRt},
                                         {"rtx/ECU1", "", kNotRt},
                                         {"rt", "", kNotRt},
                                         {"", "", kNotRt},
                                         {"rttxECU1", "", kNotRt},
                                         {"bus/rt/ECU1", "", kNotRt}}) {
    const auto out = utils::ecu_from_topic(c.topic);
    EXPECT_EQ(out.ok, c.error.empty()) << c.topic;
    EXPECT_EQ(out.value, c.ecu) << c.topic;
    EXPECT_EQ(out.error, c.error) << c.topic;
  }
}

TEST(AnEcuContainer, SubscribesEachNewTopicThenItsTransmitTopicAndWithdrawsThemByEcuName) {
  auto transport = std::make_shared<FakeTransportClient>();
  auto container = std::make_unique<EcuContainer>(transport);
  LogCapture log;
  struct Case {
    std::string topic, ecu;
    Lines subscribed;
  };
  // The transmit topic drops the first three characters, whatever they are.
  for (const Case& c :
       std::vector<Case>{{"rttx/ECU2", "ECU2", {"rttx/ECU2", "rttx/x/ECU2"}},
                         {"rt/bus0/ECU1", "ECU1", {"rt/bus0/ECU1", "rttx/bus0/ECU1"}},
                         {"rt/ECU2", "ECU2", {"rt/ECU2", "rttx/ECU2"}},
                         {"rt/ECU1", "ECU1", {"rt/ECU1", "rttx/ECU1"}},
                         {"rt/ECU1", "ECU1", {}},
                         {"rt/ ", "", {"rt/ ", "rttx/ "}},
                         {"bus/ECU1", "-", {}},
                         {"rt/", "-", {}}}) {
    transport->calls.clear();
    const auto ecu = container->ecu_from_topic(c.topic);
    EXPECT_EQ(ecu ? ecu->m_name : "-", c.ecu) << c.topic;
    Lines subscribed;
    for (const auto& call : transport->calls) {
      EXPECT_EQ(call.qos, 1);
      EXPECT_EQ(call.observer, ecu.get());
      subscribed.push_back(call.topic);
    }
    EXPECT_EQ(subscribed, c.subscribed) << c.topic;
  }
  EXPECT_EQ(container->size(), 3u);
  EXPECT_EQ(log.matching("tokard.ecucontainer: create"),
            (Lines{"INFO tokard.ecucontainer: create ECU 'ECU2'",
                   "INFO tokard.ecucontainer: create ECU 'ECU1'",
                   "INFO tokard.ecucontainer: create ECU ''"}));
  EXPECT_EQ(log.matching("WARNING"),
            (Lines{"WARNING tokard.ecucontainer: Unable to get ECU from topic: bus/ECU1",
                   "WARNING tokard.ecucontainer: Unable to get ECU from topic: rt/"}));
  EXPECT_EQ(log.matching("Got ECU 'ECU1'").front(),
            "DEBUG tokard.ecucontainer: Got ECU 'ECU1' for topic: rt/bus0/ECU1");

  transport->calls.clear();
  container.reset();
  EXPECT_EQ(transport->call_log(),
            (Lines{"unsubscribe rt/ ", "unsubscribe rttx/ ", "unsubscribe rt/ECU1",
                   "unsubscribe rttx/ECU1", "unsubscribe rt/bus0/ECU1",
                   "unsubscribe rttx/bus0/ECU1", "unsubscribe rt/ECU2", "unsubscribe rttx/ECU2",
                   "unsubscribe rttx/ECU2", "unsubscribe rttx/x/ECU2"}));
  EXPECT_TRUE(transport->observers.empty());
}

}  // namespace
}  // namespace tokard::test
