#include "program.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

extern char** environ;

namespace tokctl {

Program::~Program() {
  if (m_pid <= 0) {
    return;
  }
  signal(SIGKILL);
  wait_for_end();
  reap();
}

int Program::start(const std::vector<std::string>& argv) {
  std::vector<char*> words;
  for (const auto& word : argv) {
    words.push_back(const_cast<char*>(word.c_str()));
  }
  words.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  // tokctl blocks SIGINT and SIGTERM for its signal thread; the child gets
  // them back, and the defaults of SIGPIPE too.
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int sig : {SIGINT, SIGTERM, SIGPIPE}) {
    sigaddset(&defaults, sig);
  }
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, words[0], nullptr, &attributes, words.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    return error;
  }
  m_pid = pid;
  return 0;
}

void Program::wait_for_end() const {
  siginfo_t info{};
  while (m_pid > 0 && ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT) != 0 &&
         errno == EINTR) {
  }
}

void Program::signal(int sig) const {
  if (m_pid > 0) {
    ::kill(-m_pid, sig);
  }
}

int Program::reap() {
  int status = 0;
  while (m_pid > 0 && ::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
  }
  m_pid = -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace tokctl
