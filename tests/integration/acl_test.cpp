// The shipped broker configuration and access control list, with accounts
// made by mosquitto_passwd: only tokard answers, each application reads only
// its own answers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>

#include "support/mqtt_client.h"
#include "support/process.h"

namespace tokard::test {
namespace {

TEST(TheShippedBrokerConfiguration, CarriesTokenTrafficOnlyForAccountsAndEachAnswerOnlyToItsOwner) {
  const std::string dir = scratch("acl"), shipped = TOKARD_SOURCE_DIR "/packaging/mosquitto/";
  const int port = free_port();
  ::mkdir(dir.c_str(), 0755);  // mosquitto started as root reads as user mosquitto
  std::filesystem::copy_file(shipped + "tokard.acl", dir + "/tokard.acl",
                             std::filesystem::copy_options::overwrite_existing);
  for (const std::string account :
       {"-c -b PW tokard tokard-secret", "-b PW app-a a-secret", "-b PW app-b b-secret"}) {
    const std::string command =
        "mosquitto_passwd " + std::regex_replace(account, std::regex("PW"), dir + "/passwd");
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }
  ::chmod((dir + "/passwd").c_str(), 0644);
  std::string config = read_file(shipped + "tokard-acl.conf");
  config = std::regex_replace(config, std::regex("\nlistener 1883 "),
                              "\nlistener " + std::to_string(port) + " ");
  config = std::regex_replace(config, std::regex("\npassword_file [^\n]*"),
                              "\npassword_file " + dir + "/passwd");
  config = std::regex_replace(config, std::regex("\nacl_file [^\n]*"),
                              "\nacl_file " + dir + "/tokard.acl");
  Broker broker(port, write_file(dir + "/mosquitto.conf", config), true);

  auto tokard =
      tokard_on(port, "INFO",
                {"TOKARD_CONFIG=" + write_file(dir + "/tokard.conf",
                                               "username = tokard\npassword = tokard-secret\n")});
  EXPECT_EQ(MqttTestClient(port, "anonymous").connack(), 5);
  MqttTestClient app(port, "app-a", "app-a", "a-secret");
  ASSERT_TRUE(app.wait_for_service()) << tokard->out();
  // tokctl with an application's account: by options, from the environment.
  const std::vector<std::tuple<std::vector<std::string>, std::vector<std::string>, int>> logins{
      {{"-u", "app-a", "-P", "a-secret"}, {}, 0},
      {{}, {"TOKCTL_USERNAME=app-a", "TOKCTL_PASSWORD=a-secret"}, 0},
      {{"-u", "app-a", "-P", "a-secret"}, {"TOKCTL_USERNAME=app-b", "TOKCTL_PASSWORD=wrong"}, 0},
      {{"-u", "app-b", "-P", "b-secret"}, {}, 4},  // app-a's answers are not app-b's to read
      {{"-u", "app-a", "-P", "guess"}, {}, 1}};
  for (const auto& [args, env, status] : logins) {
    std::vector<std::string> words{
        "acquire", "rt/ECU2", "--client",  "app-a", "-t",
        "0.5",     "-H",      "127.0.0.1", "-p",    std::to_string(port)};
    words.insert(words.end(), args.begin(), args.end());
    Process tokctl(TOKCTL_PROGRAM, words, env);
    EXPECT_EQ(tokctl.wait(10s), status) << tokctl.out() << tokctl.err();
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace tokard::test
