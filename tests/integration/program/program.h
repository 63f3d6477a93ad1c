#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace tokard::test {

// One run of a built program, started as a user would start it ("tokard"
// as argv[0]), with standard output and standard error read separately.
// Killed with SIGKILL if it is still running when the object goes.
class Program {
 public:
  Program(const std::string& path, const std::vector<std::string>& args,
          const std::vector<std::string>& extra_env = {}) {
    std::vector<std::string> words{"tokard"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      if (!overridden(*entry, extra_env)) {
        env.emplace_back(*entry);
      }
    }
    env.insert(env.end(), extra_env.begin(), extra_env.end());
    // Built before fork: the child may only make async-signal-safe calls.
    std::vector<char*> argv = pointers(words);
    std::vector<char*> envp = pointers(env);

    int out[2];
    int err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe2 failed");
    }
    m_pid = ::fork();
    if (m_pid < 0) {
      throw std::runtime_error("fork failed");
    }
    if (m_pid == 0) {
      ::dup2(out[1], STDOUT_FILENO);
      ::dup2(err[1], STDERR_FILENO);
      ::execve(path.c_str(), argv.data(), envp.data());
      ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    m_fds[0] = out[0];
    m_fds[1] = err[0];
  }

  virtual ~Program() {
    if (m_pid > 0) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
    }
    for (int fd : m_fds) {
      if (fd >= 0) {
        ::close(fd);
      }
    }
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  const std::string& out() const { return m_text[0]; }
  const std::string& err() const { return m_text[1]; }

  bool send(int sig) const { return m_pid > 0 && ::kill(m_pid, sig) == 0; }

  // Reads until standard output contains `text`, the program closes it, or
  // `limit` passes.
  bool wait_for_out(const std::string& text,
                    std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (out().find(text) == std::string::npos) {
      if (m_fds[0] < 0 || std::chrono::steady_clock::now() > deadline) {
        return false;
      }
      pump(10);
    }
    return true;
  }

  // Reads both streams to their end and reaps the program; its wait status,
  // or nothing when `limit` passes first.
  std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      if (m_pid > 0) {
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
          m_status = status;
          m_pid = -1;
        }
      }
      if (m_pid < 0 && m_fds[0] < 0 && m_fds[1] < 0) {
        return m_status;
      }
      if (std::chrono::steady_clock::now() > deadline) {
        return std::nullopt;
      }
      pump(10);
    }
  }

 private:
  // Whether `entry` ("NAME=value") names a variable that `extra` sets.
  static bool overridden(const std::string& entry, const std::vector<std::string>& extra) {
    const std::string name = entry.substr(0, entry.find('=') + 1);
    for (const auto& e : extra) {
      if (e.compare(0, name.size(), name) == 0) {
        return true;
      }
    }
    return false;
  }

  static std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> out;
    for (auto& text : texts) {
      out.push_back(text.data());
    }
    out.push_back(nullptr);
    return out;
  }

  // One poll of the open streams, appending what is there.
  void pump(int timeout_ms) {
    pollfd fds[2];
    nfds_t count = 0;
    int which[2];
    for (int i = 0; i < 2; ++i) {
      if (m_fds[i] >= 0) {
        fds[count] = {m_fds[i], POLLIN, 0};
        which[count++] = i;
      }
    }
    if (::poll(fds, count, timeout_ms) <= 0) {
      return;
    }
    for (nfds_t k = 0; k < count; ++k) {
      if (fds[k].revents == 0) {
        continue;
      }
      const int i = which[k];
      char buffer[4096];
      const ssize_t n = ::read(m_fds[i], buffer, sizeof buffer);
      if (n > 0) {
        m_text[i].append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(m_fds[i]);
        m_fds[i] = -1;
      }
    }
  }

  pid_t m_pid = -1;
  int m_fds[2] = {-1, -1};
  std::string m_text[2];
  std::optional<int> m_status;
};

// The exit status of a program that ended normally, else -1.
inline int exit_status(const std::optional<int>& status) {
  return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

}  // namespace tokard::test
