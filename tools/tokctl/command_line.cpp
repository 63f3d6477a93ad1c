#include "command_line.h"

#include <getopt.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <map>
#include <set>

namespace tokctl {
namespace {

const option kOptions[] = {
    {"host", required_argument, nullptr, 'H'},
    {"port", required_argument, nullptr, 'p'},
    {"client", required_argument, nullptr, 'c'},
    {"wait", required_argument, nullptr, 'w'},
    {"timeout", required_argument, nullptr, 't'},
    {"group", required_argument, nullptr, 'g'},
    {"username", required_argument, nullptr, 'u'},
    {"password", required_argument, nullptr, 'P'},
    {"verbose", no_argument, nullptr, 'v'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {"json", no_argument, nullptr, 'j'},
    {nullptr, 0, nullptr, 0},
};

struct CommandRule {
  std::size_t min_words;
  std::size_t max_words;
  bool needs_client;
  bool needs_group;
  std::set<char> allowed;  // options beyond kEveryCommand
};

// Options that apply to every command.
const std::set<char> kEveryCommand{'H', 'p', 'u', 'P', 'v'};

const std::map<std::string, CommandRule>& rules() {
  static const std::map<std::string, CommandRule> table{
      {"acquire", {1, 1, true, false, {'c', 't'}}},
      {"hold", {1, 1, true, false, {'c', 't', 'w'}}},
      {"release", {1, 1, true, false, {'c'}}},
      {"signal", {2, SIZE_MAX, false, true, {'g'}}},
      {"watch", {0, SIZE_MAX, false, false, {}}},
      {"status", {0, SIZE_MAX, false, false, {'j', 't'}}},
  };
  return table;
}

bool parse_port(const char* text, int& port) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < 1 || value > 65535) {
    return false;
  }
  port = static_cast<int>(value);
  return true;
}

bool parse_seconds(const char* text, double& seconds) {
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text, &end);
  // A day at most: beyond that the deadlines would overflow nothing useful.
  if (errno != 0 || end == text || *end != '\0' || !std::isfinite(value) || value < 0 ||
      value > 86400) {
    return false;
  }
  seconds = value;
  return true;
}

Parsed fail(std::string error) {
  Parsed parsed;
  parsed.error = std::move(error);
  return parsed;
}

const char* long_name(char option) {
  for (const auto& entry : kOptions) {
    if (entry.val == option) {
      return entry.name;
    }
  }
  return "?";
}

std::string from_environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

Parsed parse_command_line(int argc, char** argv) {
  Parsed parsed;
  Options& options = parsed.options;
  std::set<char> given;
  options.username = from_environment(kUsernameVariable);
  options.password = from_environment(kPasswordVariable);
  optind = 1;
  opterr = 0;  // our own messages, one style
  for (;;) {
    const int opt = getopt_long(argc, argv, ":H:p:c:w:t:g:u:P:vhV", kOptions, nullptr);
    if (opt == -1) {
      break;
    }
    given.insert(static_cast<char>(opt));
    switch (opt) {
      case 'H':
        options.host = optarg;
        if (options.host.empty()) {
          return fail("the host must not be empty");
        }
        break;
      case 'p':
        if (!parse_port(optarg, options.port)) {
          return fail(std::string("'") + optarg + "' is not a port number (1 to 65535)");
        }
        break;
      case 'c':
        options.client = optarg;
        break;
      case 'w':
      case 't': {
        double seconds = 0;
        if (!parse_seconds(optarg, seconds)) {
          return fail(std::string("'") + optarg + "' is not a number of seconds for --" +
                      long_name(static_cast<char>(opt)));
        }
        if (opt == 't' && seconds == 0) {
          return fail("--timeout must be more than 0 seconds");
        }
        (opt == 'w' ? options.wait_s : options.timeout_s) = seconds;
        break;
      }
      case 'g':
        options.group = optarg;
        break;
      case 'u':
        options.username = optarg;
        break;
      case 'P':
        options.password = optarg;
        break;
      case 'v':
        options.verbose = true;
        break;
      case 'j':
        options.json = true;
        break;
      case 'h':
        options.help = true;
        break;
      case 'V':
        options.version = true;
        break;
      case ':':
        return fail(std::string("option ") + argv[optind - 1] + " needs a value");
      default:
        if (optopt != 0) {
          return fail(std::string("unknown option -") + static_cast<char>(optopt));
        }
        return fail(std::string("unknown option ") + argv[optind - 1]);
    }
  }
  // "tokctl -h HOST ..." is a mosquitto_pub habit: never take it for a
  // request for help that succeeds.
  if (options.help && argc > 2) {
    return fail("-h/--help takes nothing else; the broker host is given with -H HOST");
  }
  if (options.help || options.version) {
    parsed.ok = true;
    return parsed;
  }
  if (optind >= argc) {
    return fail("no command given");
  }
  options.command = argv[optind];
  options.words.assign(argv + optind + 1, argv + argc);

  const auto rule = rules().find(options.command);
  if (rule == rules().end()) {
    return fail("unknown command '" + options.command + "'");
  }
  const CommandRule& r = rule->second;
  for (char option : given) {
    if (kEveryCommand.count(option) == 0 && r.allowed.count(option) == 0) {
      return fail(std::string("--") + long_name(option) + " does not apply to " + options.command);
    }
  }
  if (options.words.size() < r.min_words) {
    return fail(options.command +
                (r.min_words == 1 ? " needs a TOPIC" : " needs a TOPIC and at least one SIGNAL"));
  }
  if (r.min_words > 0 && options.words[0].empty()) {
    return fail(options.command + " needs a TOPIC that is not empty");
  }
  if (options.words.size() > r.max_words) {
    return fail(options.command + " takes one TOPIC, not '" + options.words[1] + "' too");
  }
  if (r.needs_client && options.client.empty()) {
    return fail(options.command + " needs --client NAME");
  }
  if (r.needs_group && options.group.empty()) {
    return fail(options.command + " needs --group NAME");
  }
  parsed.ok = true;
  return parsed;
}

const char* help_text() {
  return "Usage: tokctl [OPTIONS] COMMAND [ARGUMENTS]\n"
         "\n"
         "Ask tokard for ECU tokens, feed real-time signal groups and watch the broker.\n"
         "\n"
         "Commands:\n"
         "  acquire TOPIC --client NAME\n"
         "      Ask once for the token of the ECU that TOPIC names (rt/ECU1) and print\n"
         "      the answer. A granted token lapses 10 s later unless asked for again.\n"
         "  hold TOPIC --client NAME [--wait SECONDS]\n"
         "      Acquire the token and keep renewing it until SIGINT or SIGTERM, then\n"
         "      release it. With --wait, retry while the ECU is busy, up to SECONDS.\n"
         "  release TOPIC --client NAME\n"
         "      Give the token back (tokard ignores it from a client that does not hold it).\n"
         "  signal TOPIC --group NAME SIGNAL=HEX:STATUS...\n"
         "      Publish one real-time signal group on TOPIC: each SIGNAL with its data\n"
         "      bytes in hex (at least four) and its status (0 valid). A group whose\n"
         "      statuses are all 0 blocks the ECU's token; any other frees it.\n"
         "  watch [TOPIC...]\n"
         "      Print the requests, answers and signal groups seen on the broker, one\n"
         "      line each with the time, until SIGINT or SIGTERM. Default topics:\n"
         "      system/tokard/request app/+/pgn/response rt/# rttx/#\n"
         "      system/tokard/state system/tokard/status/+\n"
         "  status [ECU...] [--json]\n"
         "      Print whether tokard is online and, for every ECU (or those named), who\n"
         "      holds its token, for how long, its generation, whether it is blocked\n"
         "      and its topics. Exit status 0 while tokard is online, 4 otherwise.\n"
         "\n"
         "Options:\n"
         "  -H, --host HOST          broker host name or address (default: localhost)\n"
         "  -p, --port PORT          broker port (default: 1883)\n"
         "  -c, --client NAME        the client name the token is held in\n"
         "  -w, --wait SECONDS       hold: how long to retry while the ECU is busy\n"
         "  -t, --timeout SECONDS    how long to wait for tokard's answer (default: 2)\n"
         "  -g, --group NAME         signal: the signal group's name\n"
         "  -u, --username NAME      broker account (default: $TOKCTL_USERNAME, else none)\n"
         "  -P, --password PASSWORD  its password (default: $TOKCTL_PASSWORD); the\n"
         "                           variable keeps it out of the process list\n"
         "  -v, --verbose            log the client's own activity on standard error\n"
         "  -j, --json               status: print one JSON document\n"
         "  -h, --help               show this help\n"
         "  -V, --version            show tokctl's version\n"
         "\n"
         "Exit status: 0 acquired (or done), 1 usage or connection error,\n"
         "2 no ECU for the topic, 3 busy, 4 no answer from tokard.\n";
}

const char* version_text() { return "tokctl " TOKCTL_VERSION "\n"; }

}  // namespace tokctl
