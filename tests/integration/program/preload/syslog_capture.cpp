// Preloaded into the program under test in place of the C library's syslog:
// each record becomes a line "<priority> <text>" appended to the file named
// by $TOKARD_TEST_SYSLOG, so tests can read what would go to the system log
// and the host's log stays clean.
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

void record(int priority, const char* format, va_list args) {
  const char* path = std::getenv("TOKARD_TEST_SYSLOG");
  if (path == nullptr || format == nullptr) {
    return;
  }
  char text[4096];
  std::vsnprintf(text, sizeof text, format, args);
  char line[4200];
  const int length = std::snprintf(line, sizeof line, "%d %s\n", priority & 7, text);
  if (length <= 0) {
    return;
  }
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    return;
  }
  const auto size = static_cast<size_t>(length) < sizeof line ? static_cast<size_t>(length)
                                                              : sizeof line - 1;
  if (::write(fd, line, size) < 0) {
    // Nothing to report to: the record is lost.
  }
  ::close(fd);
}

}  // namespace

extern "C" {

void openlog(const char* /*ident*/, int /*option*/, int /*facility*/) {}

void closelog() {}

void vsyslog(int priority, const char* format, va_list args) { record(priority, format, args); }

void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  record(priority, format, args);
  va_end(args);
}

// The fortified entry points, used when the caller was built with
// _FORTIFY_SOURCE.
void __vsyslog_chk(int priority, int /*flag*/, const char* format, va_list args) {
  record(priority, format, args);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  record(priority, format, args);
  va_end(args);
}

}  // extern "C"
