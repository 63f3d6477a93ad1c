#include "ecu/ecu_container.h"

#include <gtest/gtest.h>

#include "support/fake_transport.h"
#include "support/log_capture.h"

using tokard::test::LogCapture;
using Calls = std::vector<std::string>;

namespace {

class EcuContainerTest : public testing::Test {
 protected:
  std::shared_ptr<tokard::test::FakeTransportClient> transport =
      std::make_shared<tokard::test::FakeTransportClient>();
  std::unique_ptr<tokard::EcuContainer> container =
      std::make_unique<tokard::EcuContainer>(transport);
};
using AnEcuContainer = EcuContainerTest;

TEST_F(AnEcuContainer, CreatesARecordOnFirstUseAndSubscribesItsTopicThenTheTxTopic) {
  LogCapture log;
  const auto ecu = container->ecu_from_topic("rt/ECU1");
  ASSERT_TRUE(ecu);
  EXPECT_EQ(ecu->m_name, "ECU1");
  EXPECT_EQ(container->ecu_from_topic("rt/ECU1"), ecu);
  EXPECT_EQ(transport->call_log(), (Calls{"subscribe rt/ECU1", "subscribe rttx/ECU1"}));
  for (const auto& call : transport->calls) {
    EXPECT_EQ(call.qos, 1);
    EXPECT_EQ(call.observer, ecu);
  }
  EXPECT_EQ(log.matching("create ECU"), (Calls{"INFO tokard.ecucontainer: create ECU 'ECU1'"}));
  EXPECT_TRUE(log.has("DEBUG tokard.ecucontainer: Got ECU 'ECU1' for topic: rt/ECU1"));
}

TEST_F(AnEcuContainer, SharesOneRecordBetweenTopicsNamingTheSameEcu) {
  const auto ecu = container->ecu_from_topic("rt/ECU1");
  EXPECT_EQ(container->ecu_from_topic("rt/bus0/ECU1"), ecu);
  EXPECT_EQ(container->size(), 1u);
  EXPECT_EQ(transport->call_log(), (Calls{"subscribe rt/ECU1", "subscribe rttx/ECU1",
                                          "subscribe rt/bus0/ECU1", "subscribe rttx/bus0/ECU1"}));
}

TEST_F(AnEcuContainer, PairsATransmitTopicByDroppingThreeCharacters) {
  EXPECT_EQ(container->ecu_from_topic("rttx/ECU1")->m_name, "ECU1");
  EXPECT_EQ(transport->call_log(), (Calls{"subscribe rttx/ECU1", "subscribe rttx/x/ECU1"}));
}

TEST_F(AnEcuContainer, CreatesANamelessRecordForABlankLastSegment) {
  EXPECT_EQ(container->ecu_from_topic("rt/ ")->m_name, "");
  EXPECT_EQ(transport->call_log(), (Calls{"subscribe rt/ ", "subscribe rttx/ "}));
}

TEST_F(AnEcuContainer, RefusesTopicsThatAreNotRtTopicsWithAWarning) {
  LogCapture log;
  EXPECT_FALSE(container->ecu_from_topic("bus/ECU1"));
  EXPECT_FALSE(container->ecu_from_topic("rt/"));
  EXPECT_EQ(container->size(), 0u);
  EXPECT_TRUE(transport->calls.empty());
  EXPECT_EQ(log.matching("tokard.ecucontainer:"),
            (Calls{"WARNING tokard.ecucontainer: Unable to get ECU from topic: bus/ECU1",
                   "WARNING tokard.ecucontainer: Unable to get ECU from topic: rt/"}));
}

TEST_F(AnEcuContainer, UnsubscribesEveryPairByEcuNameThenTopicWhenDestroyed) {
  const auto ecu2 = container->ecu_from_topic("rttx/ECU2");
  container->ecu_from_topic("rt/bus0/ECU1");
  container->ecu_from_topic("rt/ECU2");
  const auto ecu1 = container->ecu_from_topic("rt/ECU1");
  transport->calls.clear();
  container.reset();
  EXPECT_EQ(transport->call_log(),
            (Calls{"unsubscribe rt/ECU1", "unsubscribe rttx/ECU1", "unsubscribe rt/bus0/ECU1",
                   "unsubscribe rttx/bus0/ECU1", "unsubscribe rt/ECU2", "unsubscribe rttx/ECU2",
                   "unsubscribe rttx/ECU2", "unsubscribe rttx/x/ECU2"}));
  for (std::size_t i = 0; i < transport->calls.size(); ++i) {
    EXPECT_EQ(transport->calls[i].observer, i < 4 ? ecu1 : ecu2);
  }
  EXPECT_TRUE(transport->observers.empty());
}

}  // namespace
