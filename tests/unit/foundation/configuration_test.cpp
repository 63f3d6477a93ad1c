#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "lapi/config/configuration.h"
#include "support/log_capture.h"

using ecu::lapi::config::Configuration;
using ecu::lapi::config::set_config_from_input;

namespace {

std::unique_ptr<Configuration> read(const std::string& text) {
  auto config = std::make_unique<Configuration>();
  std::istringstream in(text);
  set_config_from_input(config, in);
  return config;
}

}  // namespace

TEST(Configuration, PrefersExplicitValuesOverDefaultsAndAnswersEmptyForUnknownKeys) {
  Configuration config;
  EXPECT_EQ(config.get("host"), "localhost");
  EXPECT_EQ(config.get("port"), "1883");
  EXPECT_EQ(config.get("client_name"), "");
  config.set_default("client_name", "tokard");
  config.set("host", "broker.local");
  config.set_default("host", "ignored");
  EXPECT_EQ(config.get("host"), "broker.local");
  EXPECT_EQ(config.get("client_name"), "tokard");
  EXPECT_EQ(config.get("nothing"), "");
}

TEST(Configuration, ReadsKeyValueLinesSkippingCommentsBlanksAndLinesWithoutEquals) {
  tokard::test::LogCapture log("DEBUG");
  auto config = read(
      "# broker\n"
      "\n"
      "   host   =  10.0.0.1 \t\n"
      "port=1884\n"
      "this line has no equals sign\n"
      "  # indented comment = not a value\n"
      "client_name = first\n"
      "client_name = second = with equals\n"
      "logmode =\n");
  EXPECT_EQ(config->get("host"), "10.0.0.1");
  EXPECT_EQ(config->get("port"), "1884");
  EXPECT_EQ(config->get("client_name"), "second = with equals");
  EXPECT_EQ(config->get("logmode"), "");
  EXPECT_EQ(config->get("  # indented comment"), "");
  EXPECT_EQ(log.matching("WARNING lapi.config: line 5 has no '='").size(), 1u);
}

TEST(Configuration, VerifiesRequiredKeysAndThePort) {
  auto config = std::make_unique<Configuration>();
  EXPECT_FALSE(config->verify()) << "client_name has no default of its own";
  config->set_default("client_name", "tokard");
  EXPECT_TRUE(config->verify());

  for (const char* bad : {"", "0", "65536", "-1", "18x3", " 1883", "999999", "abc"}) {
    config->set("port", bad);
    EXPECT_FALSE(config->verify()) << "port '" << bad << "'";
  }
  for (const char* good : {"1", "1883", "65535"}) {
    config->set("port", good);
    EXPECT_TRUE(config->verify()) << "port '" << good << "'";
  }
  config->set("host", "");
  EXPECT_FALSE(config->verify()) << "an explicit empty host hides the default";
}
