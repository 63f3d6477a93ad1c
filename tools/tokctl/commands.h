// The five commands of tokctl; each returns the process's exit status.
#pragma once

#include "command_line.h"

namespace tokctl {

int run_acquire(const Options& options);
int run_hold(const Options& options);
int run_release(const Options& options);
int run_signal(const Options& options);
int run_watch(const Options& options);
int run_status(const Options& options);

}  // namespace tokctl
