// The command line: options into five process-wide settings that start-up
// reads afterwards, and the version and help texts.
#pragma once

#include <string>

namespace tokard {

// An empty string means the option was not given.
extern bool opt_loglevel_set;
extern std::string opt_loglevel;
extern bool opt_log_stdout;
extern std::string opt_host;
extern std::string opt_port;

// 1 when every option was taken; 0 when the help text must be shown
// instead (-h, an unknown option, a missing argument). For -V prints the
// version line and exits with status 0. -L switches logging to standard
// output at once. Values are not checked here.
[[nodiscard]] int parse_opts(int argc, char** argv);

// "tokard: <build info>" on standard error.
void version();

// The version line and the help text on standard error.
void usage();

}  // namespace tokard
