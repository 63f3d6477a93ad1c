// tokctl's commands, in one table: the parser checks a command line against
// it, run_command dispatches through it, and the help text lists it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "command_line.h"

namespace tokctl {

struct Command {
  const char* name;
  const char* usage;        // the help's first line: "acquire TOPIC --client NAME"
  const char* description;  // the help's further lines, each ending in '\n'
  std::size_t min_words;    // arguments after the command word
  std::size_t max_words;
  bool needs_client;
  bool needs_group;
  bool runs_program;           // "-- COMMAND [ARGS...]" may follow
  const char* options;         // short options allowed beyond every command's
  int (*run)(const Options&);  // returns the exit status
};

// In the order of the help text.
const std::vector<Command>& commands();

// nullptr for a name that is no command.
const Command* find_command(const std::string& name);

// Runs the parsed command; its exit status.
int run_command(const Options& options);

}  // namespace tokctl
