#include "command_line.h"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>

#include "commands.h"
#include "lapi/config/port.h"

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

// Options that apply to every command.
constexpr const char* kEveryCommand = "HpuPv";

// What the port option accepts, in the words of its complaint.
std::string port_range() {
  using namespace ecu::lapi::config;
  return "(" + std::to_string(kLowestPort) + " to " + std::to_string(kHighestPort) + ")";
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
  // The first "--" ends tokctl's own words: what follows is hold's COMMAND,
  // never read for options.
  std::vector<char*> own(argv, argv + argc);
  const auto dashes = std::find_if(own.begin(), own.end(),
                                   [](const char* word) { return std::strcmp(word, "--") == 0; });
  const bool has_program = dashes != own.end();
  if (has_program) {
    options.program.assign(dashes + 1, own.end());
    own.erase(dashes, own.end());
  }
  argc = static_cast<int>(own.size());
  own.push_back(nullptr);
  argv = own.data();
  std::set<char> given;
  options.username = from_environment(kUsernameVariable);
  options.password = from_environment(kPasswordVariable);
  optind = 0;  // 0: GNU getopt starts afresh, also after an earlier parse in process
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
        options.port = ecu::lapi::config::parse_port(optarg);
        if (options.port == 0) {
          return fail(std::string("'") + optarg + "' is not a port number " + port_range());
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

  const Command* rule = find_command(options.command);
  if (rule == nullptr) {
    return fail("unknown command '" + options.command + "'");
  }
  const Command& r = *rule;
  for (char option : given) {
    if (std::strchr(kEveryCommand, option) == nullptr &&
        std::strchr(r.options, option) == nullptr) {
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
  if (has_program && !r.runs_program) {
    return fail(options.command + " runs no COMMAND: nothing may follow --");
  }
  if (has_program && options.program.empty()) {
    return fail(options.command + " needs a COMMAND after --");
  }
  parsed.ok = true;
  return parsed;
}

const std::string& help_text() {
  static const std::string text = [] {
    std::string out =
        "Usage: tokctl [OPTIONS] COMMAND [ARGUMENTS]\n"
        "\n"
        "Ask tokard for ECU tokens, feed real-time signal groups and watch the broker.\n"
        "\n"
        "Commands:\n";
    for (const auto& command : commands()) {
      out += std::string("  ") + command.usage + "\n" + command.description;
    }
    return out +
           "\n"
           "Options:\n"
           "  -H, --host HOST          broker host name or address (default: localhost)\n"
           "  -p, --port PORT          broker port (default: 1883)\n"
           "  -c, --client NAME        the client name the token is held in\n"
           "  -w, --wait SECONDS       hold: how long to wait in line while the ECU is busy\n"
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
           "2 no ECU for the topic, 3 busy (also a token lost), 4 no answer from tokard;\n"
           "hold -- COMMAND: COMMAND's status (128+N if killed by signal N), 3 when the\n"
           "token was lost, 126 or 127 when COMMAND could not be run.\n";
  }();
  return text;
}

const char* version_text() { return "tokctl " TOKCTL_VERSION "\n"; }

}  // namespace tokctl
