// A built program run as a user runs it: arguments, environment, standard
// output and standard error captured apart, stopped by signal with its exit
// status. A thread reads both streams all the time: a pipe nobody reads fills
// up and stops a daemon at its next log line.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "support/broker.h"

extern char** environ;

namespace tokard::test {

class Process {
 public:
  // argv[0] is the program's file name; `env` entries ("NAME=value") add to
  // or replace the test's own environment.
  Process(const std::string& path, const std::vector<std::string>& args,
          const std::vector<std::string>& env = {}) {
    std::vector<std::string> words{path.substr(path.rfind('/') + 1)}, vars;
    words.insert(words.end(), args.begin(), args.end());
    std::map<std::string, std::string> by_name;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      vars.emplace_back(*entry);
    }
    vars.insert(vars.end(), env.begin(), env.end());
    for (const auto& var : vars) {
      by_name[var.substr(0, var.find('='))] = var;
    }
    vars.clear();
    for (const auto& [name, var] : by_name) {
      vars.push_back(var);
    }
    // Built before fork: the child may only make async-signal-safe calls.
    std::vector<char*> argv = pointers(words), envp = pointers(vars);
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0 || (m_pid = ::fork()) < 0) {
      throw std::runtime_error("cannot start " + path);
    }
    if (m_pid == 0) {
      ::dup2(out[1], STDOUT_FILENO);
      ::dup2(err[1], STDERR_FILENO);
      ::execve(path.c_str(), argv.data(), envp.data());
      ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    m_reader = std::thread([this, o = out[0], e = err[0]] {
      read({{o, POLLIN, 0}, {e, POLLIN, 0}});
    });
  }
  virtual ~Process() {
    signal(SIGKILL);
    wait();
    m_quit = true;
    m_reader.join();
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  std::string out() const { return text(0); }
  std::string err() const { return text(1); }
  bool signal(int sig) const { return m_pid > 0 && ::kill(m_pid, sig) == 0; }
  bool running() {
    int status = 0;
    if (m_pid > 0 && ::waitpid(m_pid, &status, WNOHANG) == m_pid) {
      m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      m_pid = -1;
    }
    return m_pid > 0;
  }

  // Waits until standard output, from byte `from` on, contains `text`.
  bool wait_for_out(const std::string& text, milliseconds limit = 5s, std::size_t from = 0) const {
    return wait_until([&] { return out().find(text, from) != std::string::npos; }, limit);
  }

  // Once the program has ended and its streams are read to the end: the code
  // it exited with, or 128 + the signal that ended it.
  std::optional<int> wait(milliseconds limit = 5s) {
    if (!wait_until([this] { return !running() && m_closed == 2; }, limit)) {
      return std::nullopt;
    }
    return m_status;
  }

 private:
  static std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> out;
    for (auto& text : texts) {
      out.push_back(text.data());
    }
    out.push_back(nullptr);
    return out;
  }
  std::string text(int which) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_text[which];
  }
  void read(std::vector<pollfd> fds) {
    while (!m_quit && m_closed < 2) {
      ::poll(fds.data(), 2, 50);
      for (int i = 0; i < 2; ++i) {
        char buffer[65536];
        const ssize_t n = fds[i].revents != 0 ? ::read(fds[i].fd, buffer, sizeof buffer) : -1;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (n > 0) {
          m_text[i].append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || (fds[i].revents & (POLLHUP | POLLERR)) != 0) {
          ::close(fds[i].fd);
          fds[i].fd = -1;
          ++m_closed;
        }
      }
    }
  }

  pid_t m_pid = -1;
  int m_status = -1;
  mutable std::mutex m_mutex;
  std::string m_text[2];
  std::atomic<int> m_closed{0}, m_quit{0};
  std::thread m_reader;
};

// Where the syslog stand-in preloaded into tokard writes (support/syslog_capture.cpp).
inline std::string syslog_file() { return scratch("syslog"); }

// The built tokard with `args`, reading its configuration from $TOKARD_CONFIG
// (a file that does not exist unless `env` names one) and signal definitions
// with one group, EngineState (Speed, Torque) on rt/ECU1.
inline std::unique_ptr<Process> run_tokard(const std::vector<std::string>& args,
                                           std::vector<std::string> env = {}) {
  const char* asan = std::getenv("ASAN_OPTIONS");
  const std::string signals = write_file(
      scratch("rt_signals.json"), R"({"groups": [{"topic": "rt/ECU1",)"
                                  R"( "name": "EngineState", "signals": ["Speed", "Torque"]}]})");
  env.insert(
      env.begin(),
      {"TOKARD_CONFIG=" + scratch("no_such.conf"), "LAPI_RT_SIGNALS=" + signals,
       std::string("ASAN_OPTIONS=") + (asan ? asan : "") + ":verify_asan_link_order=0",
       std::string("LD_PRELOAD=") + TOKARD_SYSLOG_CAPTURE, "TOKARD_TEST_SYSLOG=" + syslog_file()});
  return std::make_unique<Process>(TOKARD_PROGRAM, args, env);
}

// tokard serving a broker port, its log on standard output at `level`.
inline std::unique_ptr<Process> tokard_on(int port, const std::string& level = "INFO",
                                          std::vector<std::string> env = {}) {
  return run_tokard({"-L", "-l", level, "-H", "127.0.0.1", "-p", std::to_string(port)},
                    std::move(env));
}

}  // namespace tokard::test
