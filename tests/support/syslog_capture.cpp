// Preloaded into tokard in place of the C library's syslog: each record is
// appended as "<priority> <text>" to the file $TOKARD_TEST_SYSLOG names, so
// tests read what would reach the system log and the host's log stays clean.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

void record(int priority, const char* format, va_list args) {
  const char* path = std::getenv("TOKARD_TEST_SYSLOG");
  FILE* file = path != nullptr ? std::fopen(path, "ae") : nullptr;
  if (file == nullptr) {
    return;
  }
  std::fprintf(file, "%d ", priority & 7);
  std::vfprintf(file, format, args);
  std::fputc('\n', file);
  std::fclose(file);
}

}  // namespace

extern "C" {
void openlog(const char*, int, int) {}
void closelog() {}
void vsyslog(int priority, const char* format, va_list args) { record(priority, format, args); }
void __vsyslog_chk(int priority, int, const char* format, va_list args) {
  record(priority, format, args);
}
void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  record(priority, format, args);
  va_end(args);
}
void __syslog_chk(int priority, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  record(priority, format, args);
  va_end(args);
}
}
