// The commands that use the broker without asking for tokens; each returns
// the exit status.
#pragma once

#include "command_line.h"

namespace tokctl {

int run_signal(const Options& options);
int run_watch(const Options& options);
int run_status(const Options& options);

}  // namespace tokctl
