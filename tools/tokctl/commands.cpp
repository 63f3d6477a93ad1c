#include "commands.h"

#include "bus_commands.h"
#include "token_commands.h"

namespace tokctl {

const std::vector<Command>& commands() {
  static const std::vector<Command> table{
      {"acquire", "acquire TOPIC --client NAME",
       "      Ask once for the token of the ECU that TOPIC names (rt/ECU1) and print\n"
       "      the answer. A granted token lapses 10 s later unless asked for again.\n",
       1, 1, true, false, false, "ct", run_acquire},
      {"hold", "hold TOPIC --client NAME [--wait SECONDS] [-- COMMAND [ARGS...]]",
       "      Acquire the token and keep renewing it until SIGINT or SIGTERM, then\n"
       "      release it. With --wait, wait in line while the ECU is busy, up to\n"
       "      SECONDS. With a COMMAND, run it once the token is held, release the\n"
       "      token when it ends and exit with its status; a lost token stops it\n"
       "      (SIGTERM, then SIGKILL before the token could lapse) and exits 3.\n",
       1, 1, true, false, true, "ctw", run_hold},
      {"release", "release TOPIC --client NAME",
       "      Give the token back (tokard ignores it from a client that does not hold it).\n", 1, 1,
       true, false, false, "c", run_release},
      {"signal", "signal TOPIC --group NAME SIGNAL=HEX:STATUS...",
       "      Publish one real-time signal group on TOPIC: each SIGNAL with its data\n"
       "      bytes in hex (at least four) and its status (0 valid). A group whose\n"
       "      statuses are all 0 blocks the ECU's token; any other frees it.\n",
       2, SIZE_MAX, false, true, false, "g", run_signal},
      {"watch", "watch [TOPIC...]",
       "      Print the requests, answers and signal groups seen on the broker, one\n"
       "      line each with the time, until SIGINT or SIGTERM. Default topics:\n"
       "      system/tokard/request app/+/pgn/response rt/# rttx/#\n"
       "      system/tokard/state system/tokard/status/+\n",
       0, SIZE_MAX, false, false, false, "", run_watch},
      {"status", "status [ECU...] [--json]",
       "      Print whether tokard is online and, for every ECU (or those named), who\n"
       "      holds its token, for how long, its generation, whether it is blocked\n"
       "      and its topics. Exit status 0 while tokard is online, 4 otherwise.\n",
       0, SIZE_MAX, false, false, false, "jt", run_status},
  };
  return table;
}

const Command* find_command(const std::string& name) {
  for (const auto& command : commands()) {
    if (name == command.name) {
      return &command;
    }
  }
  return nullptr;
}

int run_command(const Options& options) {
  const Command* command = find_command(options.command);
  return command != nullptr ? command->run(options) : kUsageOrConnection;
}

}  // namespace tokctl
