// tokctl's command line: one command word, its arguments, and options that
// may stand anywhere among them; for hold, "--" and a COMMAND to run.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tokctl {

// Exit statuses, shared by every command.
enum ExitStatus : int {
  kAcquired = 0,  // also: the command did what it was asked
  kUsageOrConnection = 1,
  kNoEcu = 2,
  kBusy = 3,
  kNoAnswer = 4,
};

struct Options {
  std::string command;               // acquire, hold, release, signal, watch, status
  std::vector<std::string> words;    // the command's arguments, in order
  std::vector<std::string> program;  // hold: the COMMAND after "--" and its arguments
  std::string host = "localhost";
  int port = 1883;
  std::string client;
  std::optional<double> wait_s;
  std::optional<double> timeout_s;
  std::string group;
  std::string username;  // the broker account; empty: anonymous
  std::string password;
  bool verbose = false;
  bool help = false;
  bool version = false;
  bool json = false;  // status: one JSON document instead of lines
};

// Where the broker login comes from when -u/-P are not given, so that a
// password need not show in `ps`.
constexpr const char* kUsernameVariable = "TOKCTL_USERNAME";
constexpr const char* kPasswordVariable = "TOKCTL_PASSWORD";

struct Parsed {
  bool ok = false;
  Options options;
  std::string error;  // for "tokctl: <error>" when not ok
};

// Reads the environment for the broker login; argv is not changed.
Parsed parse_command_line(int argc, char** argv);

// The help text, for standard output.
const std::string& help_text();

// "tokctl <version>", for standard output.
const char* version_text();

}  // namespace tokctl
