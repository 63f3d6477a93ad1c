#include "utils/topic.h"

#include <gtest/gtest.h>

using tokard::utils::ecu_from_topic;

namespace {

TEST(AnRtTopic, NamesTheEcuInItsLastSegmentInEitherForm) {
  for (const auto& [topic, name] :
       std::vector<std::pair<std::string, std::string>>{{"rt/ECU1", "ECU1"},
                                                        {"rttx/ECU1", "ECU1"},
                                                        {"rt/a/b/ECU1", "ECU1"},
                                                        {"rttx/bus0/E", "E"}}) {
    const auto out = ecu_from_topic(topic);
    EXPECT_TRUE(out.ok) << topic;
    EXPECT_EQ(out.value, name) << topic;
    EXPECT_EQ(out.error, "") << topic;
  }
}

TEST(AnRtTopic, LosesOnlyTheWhiteSpaceAroundItsName) {
  EXPECT_EQ(ecu_from_topic("rt/  ECU1 \t").value, "ECU1");
  EXPECT_EQ(ecu_from_topic("rt/\n\v E1 X\f\r").value, "E1 X");
  EXPECT_EQ(ecu_from_topic("rt/\xa0"
                           "E1")
                .value,
            "\xa0"
            "E1");
  const auto blank = ecu_from_topic("rt/   ");
  EXPECT_TRUE(blank.ok);
  EXPECT_EQ(blank.value, "");
}

TEST(AnRtTopic, EndingInASlashHasNoEcuPart) {
  for (const char* topic : {"rt/", "rttx/", "rt/ECU1/"}) {
    const auto out = ecu_from_topic(topic);
    EXPECT_FALSE(out.ok) << topic;
    EXPECT_EQ(out.value, "") << topic;
    EXPECT_EQ(out.error, "Unable to find ECU part of topic!") << topic;
  }
}

TEST(AnyOtherTopic, IsNotAnRtTopic) {
  for (const char* topic : {"RT/ECU1", " rt/ECU1", "rtx/ECU1", "rt", "", "rttx", "rttxECU1",
                            "rttx:a/ECU1", "bus/rt/ECU1"}) {
    const auto out = ecu_from_topic(topic);
    EXPECT_FALSE(out.ok) << topic;
    EXPECT_EQ(out.error, "Not an RT topic!") << topic;
  }
}

}  // namespace
