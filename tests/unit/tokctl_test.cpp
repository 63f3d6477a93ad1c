// tokctl in process: its command lines, the lines `watch` prints and what
// `status` makes of tokard's retained state.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>

#include "command_line.h"
#include "frames.h"
#include "status_view.h"
#include "tokard/pb/status.pb.h"

namespace tokard::test {
namespace {

using Words = std::vector<std::string>;

// What a command line asks for, or "error: <the complaint>".
std::string parsed(Words words) {
  words.insert(words.begin(), "tokctl");
  std::vector<char*> argv;
  for (auto& word : words) {
    argv.push_back(word.data());
  }
  const auto result = tokctl::parse_command_line(static_cast<int>(argv.size()), argv.data());
  const auto& o = result.options;
  std::ostringstream out;
  out << (o.help ? "help" : o.command) << " @" << o.host << ":" << o.port << " c=" << o.client
      << " w=" << o.wait_s.value_or(-1) << " t=" << o.timeout_s.value_or(-1);
  for (const auto& word : o.words) {
    out << " " << word;
  }
  for (const auto& word : o.program) {
    out << " [" << word << "]";
  }
  return result.ok ? out.str() : "error: " + result.error;
}

TEST(ATokctlCommandLine, GivesTheOptionsOrSaysWhatIsWrong) {
  const std::vector<std::pair<Words, std::string>> cases{
      {{"--help"}, "help @localhost:1883 c= w=-1 t=-1"},
      {{"acquire", "-p", "1884", "rt/E", "-c", "a", "-t", "0.5"},
       "acquire @localhost:1884 c=a w=-1 t=0.5 rt/E"},
      {{"-H", "bus", "hold", "rt/E", "-c", "a", "-w", "3", "--", "ls", "--", "-p"},
       "hold @bus:1883 c=a w=3 t=-1 rt/E [ls] [--] [-p]"},
      {{}, "error: no command given"},
      {{"frob"}, "error: unknown command 'frob'"},
      {{"acquire", "rt/E"}, "error: acquire needs --client NAME"},
      {{"acquire", "", "-c", "a"}, "error: acquire needs a TOPIC that is not empty"},
      {{"release", "rt/E", "rt/F", "-c", "a"}, "error: release takes one TOPIC, not 'rt/F' too"},
      {{"hold", "rt/E", "-c", "a", "-w", "soon"},
       "error: 'soon' is not a number of seconds for --wait"},
      {{"-p", "+80", "watch"}, "error: '+80' is not a port number (1 to 65535)"},
      {{"release", "rt/E", "-c", "a", "-w", "1"}, "error: --wait does not apply to release"},
      {{"-h", "localhost", "watch"},
       "error: -h/--help takes nothing else; the broker host is given with -H HOST"},
      {{"acquire", "rt/E", "-c", "a", "--", "ls"},
       "error: acquire runs no COMMAND: nothing may follow --"},
      {{"hold", "rt/E", "-c", "a", "--"}, "error: hold needs a COMMAND after --"}};
  for (const auto& [words, want] : cases) {
    EXPECT_EQ(parsed(words), want);
  }
}

protocol::Message status_frame(const std::string& ecu, const std::string& holder,
                               const Words& waiters = {}) {
  pb::TokenStatus status;
  status.set_ecu(ecu);
  status.set_holder(holder);
  status.set_generation(3);
  status.set_granted_unix_ms(holder.empty() ? 0 : 1000);
  status.set_blocked(!holder.empty());
  status.set_boot_id("b1");
  status.add_topics("rt/" + ecu);
  for (const auto& waiter : waiters) {
    status.add_waiters(waiter);
  }
  return protocol::frame(status);
}

protocol::Message bytes(const std::string& text) {
  protocol::Message msg;
  msg.payload.assign(text.begin(), text.end());
  return msg;
}

TEST(AWatchLine, SaysWhatEachKindOfMessageMeans) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  using Request = protocol::Request;
  const std::string d("\x05\x1a\x00\xff", 4);
  const auto at = std::chrono::system_clock::time_point(std::chrono::milliseconds(13'500'042));
  const std::vector<std::tuple<std::string, protocol::Message, std::string>> cases{
      {"system/tokard/request", protocol::request_frame(Request::ACQUIRE, "rt/E", "a"),
       "acquire rt/E by a"},
      {"system/tokard/wait", protocol::request_frame(Request::RELEASE, "rt/E", "b"),
       "leave the line of rt/E by b"},
      {"app/a/pgn/response", protocol::response_frame(protocol::Response::NO_ECU, "can/E"),
       "no ECU can/E"},
      {"app/a/pgn/response", bytes("xyz"), "undecodable frame (3 bytes, shorter than a header)"},
      {"rt/E", protocol::group_frame("G", {{"S", d, 0}, {"T", d, 2}}),
       "G not valid S=051a00ff:0 T=051a00ff:2"},
      {"system/tokard/status/E", status_frame("E", "a", {"b", "c"}),
       "E held by a for 13499 s, generation 3, blocked, waiting b c, topics rt/E"},
      {"other", bytes(std::string(40, '\x11')), "40 bytes " + std::string(64, '1') + "..."}};
  for (const auto& [topic, msg, text] : cases) {
    EXPECT_EQ(tokctl::watch_line(topic, msg, at), "03:45:00.042 " + topic + " " + text);
  }
}

TEST(AStatusReport, ShowsTheStateAndEachEcuAsTableOrJson) {
  tokctl::StatusCollector collector;
  collector.message("system/tokard/status/E2", status_frame("E2", ""));
  EXPECT_FALSE(collector.online());
  EXPECT_EQ(collector.report(false, 0),
            "tokard: never seen\n"
            "ECU  HOLDER  HELD  GENERATION  BLOCKED  TOPICS\n"
            "E2   -       -     3           no       rt/E2\n");
  collector.message("system/tokard/state", bytes("online"));
  collector.message("system/tokard/status/E1", status_frame("E1", "a", {"b"}));
  EXPECT_TRUE(collector.online());
  EXPECT_EQ(collector.report(false, 4500),
            "tokard: online\n"
            "ECU  HOLDER  HELD  GENERATION  BLOCKED  WAITING  TOPICS\n"
            "E1   a       3 s   3           yes      b        rt/E1\n"
            "E2   -       -     3           no       -        rt/E2\n");
  EXPECT_EQ(nlohmann::json::parse(collector.report(true, 4500)), R"({"tokard": "online", "ecus": [
      {"ecu": "E1", "holder": "a", "generation": 3, "granted_unix_ms": 1000, "held_ms": 3500,
       "blocked": true, "topics": ["rt/E1"], "boot_id": "b1", "waiters": ["b"]},
      {"ecu": "E2", "holder": null, "generation": 3, "blocked": false, "topics": ["rt/E2"],
       "boot_id": "b1"}]})"_json);
}

}  // namespace
}  // namespace tokard::test
