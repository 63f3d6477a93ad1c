// The commands that ask tokard for tokens; each returns the exit status.
#pragma once

#include "command_line.h"

namespace tokctl {

int run_acquire(const Options& options);
int run_hold(const Options& options);
int run_release(const Options& options);

}  // namespace tokctl
