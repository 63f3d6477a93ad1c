// hold's COMMAND as a child process: started with the PATH searched, in a
// process group of its own so that a lost token stops everything it
// started, and with SIGINT and SIGTERM unblocked and at their defaults.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tokctl {

class Program {
 public:
  Program() = default;
  // Kills the group and reaps the child if it still runs.
  virtual ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // 0 once running, else the errno of the failed start (ENOENT: not found).
  [[nodiscard]] int start(const std::vector<std::string>& argv);

  // Blocks until the child has ended, without reaping it: until reap(), its
  // process group cannot be taken by another process, so signal() never
  // reaches a stranger. Call from one thread.
  void wait_for_end() const;

  // Sends `sig` to the whole group (what has ended ignores it).
  void signal(int sig) const;

  // After wait_for_end: reaps the child; its exit status, or 128 + N when
  // signal N ended it, as shells report it.
  int reap();

 private:
  pid_t m_pid = -1;
};

}  // namespace tokctl
