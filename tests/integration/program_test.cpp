// The built tokard as a user starts it: options, exit statuses, where its
// configuration and log lines come from, and how it stops.
#include <gtest/gtest.h>

#include <regex>

#include "main/build_info.h"
#include "support/log_capture.h"
#include "support/mqtt_client.h"
#include "support/process.h"

namespace tokard::test {
namespace {

const std::string kBanner = std::string("tokard: ") + build_info + "\n";
const std::string kHelp = kBanner +
                          "\nUSAGE: tokard [OPTIONS]\n\nOPTIONS:\n"
                          "  -H, --host HOST           Hostname (or IP) of internal MQTT broker\n"
                          "  -p, --port PORT           Port of internal MQTT broker\n"
                          "  -l, --loglevel            Enforces the loglevel during execution.\n"
                          "                            Possibles values: EMERG, ALERT, CRITICAL, "
                          "ERROR, WARNING, NOTICE, INFO, DEBUG\n"
                          "                            Default: NOTICE\n\n"
                          "  -L, --log-stdout          Set logging to STDOUT instead of syslog.\n\n"
                          "  -h, --help                Show this help\n\n"
                          "  -V, --version             Show version\n\n";
const std::string kComplaint = "<getopt's complaint>";

TEST(TheCommandLine, GivesEachOptionItsOutputAndExitStatus) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  for (const Case& c : std::vector<Case>{{{"-h"}, 1, kHelp},
                                         {{"--help"}, 1, kHelp},
                                         {{"-V"}, 0, kBanner},
                                         {{"--version"}, 0, kBanner},
                                         {{"-p", "1884", "-V"}, 0, kBanner},
                                         {{"-V", "--no-such-option"}, 0, kBanner},
                                         {{"-x"}, 1, kComplaint},
                                         {{"--no-such-option"}, 1, kComplaint},
                                         {{"--log-stdout"}, 1, kComplaint},
                                         {{"-l"}, 1, kComplaint},
                                         {{"-p"}, 1, kComplaint},
                                         {{"-H"}, 1, kComplaint}}) {
    auto tokard = run_tokard(c.args);
    EXPECT_EQ(tokard->wait(), c.status) << c.args[0];
    EXPECT_EQ(tokard->out(), kBanner) << c.args[0];
    if (c.err != kComplaint) {
      EXPECT_EQ(tokard->err(), c.err) << c.args[0];
      continue;
    }
    const std::string err = tokard->err();
    ASSERT_GT(err.size(), kHelp.size()) << err;
    EXPECT_EQ(err.substr(err.size() - kHelp.size()), kHelp);
    EXPECT_TRUE(
        std::regex_match(err.substr(0, err.size() - kHelp.size()), std::regex("tokard: [^\n]+\n")))
        << err;
  }
  EXPECT_TRUE(std::regex_match(
      kBanner, std::regex("tokard: \\S+ - \\d+\\.\\d+\\.\\d+ - \\S+ - "
                          "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC - \\S+\n")));
}

// Runs that end at the configuration check (port 0), and where their lines go.
TEST(TheConfiguration, DecidesWhereTheLinesGoAndEndsWithStatusOneWhenItDoesNotVerify) {
  struct Case {
    std::string file;  // "-" for none
    std::vector<std::string> args;
    Lines out, err, syslog;  // the banner left out
  };
  const std::string kPort = "WARNING lapi.config: port '0' is not a number from 1 to 65535";
  const std::string kFailed = "ERROR tokard.main: Unable to verify Configuration.";
  for (const Case& c :
       std::vector<Case>{{"-",
                          {"-L", "-l", "debug", "-p", "0"},
                          {"DEBUG tokard.main: Register unix signal handler",
                           "DEBUG tokard.main: Using default configuration", kPort, kFailed},
                          {},
                          {}},
                         {"port = 0\n",
                          {"-L", "-l", "DEBUG"},
                          {"DEBUG tokard.main: Register unix signal handler", kPort, kFailed},
                          {},
                          {}},
                         {"logmode = stdout\nport = 0\n",
                          {"-l", "DEBUG"},
                          {kPort, kFailed},
                          {},
                          {"7 tokard.main: Register unix signal handler"}},
                         {"logmode = StdErr\nport = 0\n", {}, {}, {kPort, kFailed}, {}},
                         {"logmode = file\nport = 0\n",
                          {},
                          {},
                          {},
                          {"5 tokard.main: logmode from config 'FILE' not recognized",
                           "4 lapi.config: " + kPort.substr(21),
                           "3 tokard.main: Unable to verify Configuration."}},
                         {"logmode = STDERR\nport = 0\n", {"-L"}, {kPort, kFailed}, {}, {}},
                         {"logmode = file\nport = 0\n", {"-L"}, {kPort, kFailed}, {}, {}},
                         {"logmode = stdout\nloglevel = debug\nport = 0\n",
                          {"-l", ""},
                          {kPort, kFailed},
                          {},
                          {}}}) {
    SCOPED_TRACE(c.file);
    std::remove(syslog_file().c_str());
    const std::string file = scratch("tokard.conf");
    auto tokard = run_tokard(
        c.args,
        {"TOKARD_CONFIG=" + (c.file == "-" ? scratch("none.conf") : write_file(file, c.file))});
    EXPECT_EQ(tokard->wait(), 1);
    Lines out = lines_of(tokard->out());
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.front() + "\n", kBanner);
    EXPECT_EQ(Lines(out.begin() + 1, out.end()), c.out);
    EXPECT_EQ(lines_of(tokard->err()), c.err);
    EXPECT_EQ(lines_of(read_file(syslog_file())), c.syslog);
  }
}

// Runs that serve: which broker the answers come from, and the lines.
TEST(TheConfiguration, PrefersTheOptionsOverTheFileOverTheDefaults) {
  Broker first, second;
  struct Case {
    std::string file;
    std::vector<std::string> args;
    Broker* serving;
    std::string client_id, line;  // a line the run logs, on standard output
    int sig;                      // DEBUG lines are written when `line` is one
  };
  const std::string p1 = std::to_string(first.port()), p2 = std::to_string(second.port());
  for (const Case& c : std::vector<Case>{
           {"host = 127.0.0.1\nport = " + p1 + "\n",
            {"-L", "-l", "DEBUG"},
            &first,
            "tokard",
            "DEBUG tokard.daemon: Starting...",
            SIGTERM},
           {"host = no.such.host.invalid\nport = " + p1 +
                "\nclient_name = tok2\nloglevel = debug\n",
            {"-L", "-H", "127.0.0.1", "-p", p2, "-l", "INFO"},
            &second,
            "tok2",
            "INFO tokard.reqhandler.acquire: Token acquired for 'PROBE' on rt/PROBE by probe",
            SIGINT},
           // --log-stdout swallows "-p": the file's port stays.
           {"port = " + p1 + "\n",
            {"--log-stdout", "-p", p2, "-l", "DEBUG"},
            &first,
            "tokard",
            "DEBUG tokard.daemon: Initializing...",
            SIGTERM},
           {"logmode = stdout\nloglevel = debug\nport = " + p1 + "\n",
            {},
            &first,
            "tokard",
            "DEBUG tokard.daemon: Initializing...",
            SIGINT}}) {
    SCOPED_TRACE(c.file);
    const auto connections = c.serving->log().size();
    auto tokard =
        run_tokard(c.args, {"TOKARD_CONFIG=" + write_file(scratch("tokard.conf"), c.file)});
    MqttTestClient app(c.serving->port(), "probe");
    ASSERT_TRUE(app.wait_for_service()) << tokard->out() << tokard->err();
    EXPECT_NE(c.serving->log().find(" as " + c.client_id + " ", connections), std::string::npos);
    ASSERT_TRUE(tokard->signal(c.sig));
    EXPECT_EQ(tokard->wait(), 0) << tokard->err();
    EXPECT_NE(tokard->out().find(c.line + "\n"), std::string::npos) << tokard->out();
    const Lines daemon = matching(lines_of(tokard->out()), "tokard.daemon");
    if (c.line.rfind("DEBUG", 0) == 0) {
      EXPECT_EQ(daemon,
                (Lines{"DEBUG tokard.daemon: Initializing...", "DEBUG tokard.daemon: Starting...",
                       "DEBUG tokard.daemon: ... stopped!"}));
    } else {
      EXPECT_EQ(tokard->out().find("DEBUG"), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace tokard::test
