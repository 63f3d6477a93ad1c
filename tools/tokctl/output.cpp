#include "output.h"

#include <atomic>
#include <iostream>
#include <mutex>
#include <sstream>

namespace tokctl {
namespace {

std::mutex g_output_mutex;
std::atomic<bool> g_stdout_kept{false};

}  // namespace

void say(const std::string& line) {
  if (g_stdout_kept) {
    complain(line);
    return;
  }
  std::lock_guard<std::mutex> lock(g_output_mutex);
  std::cout << line << std::endl;
}

void complain(const std::string& line) {
  std::lock_guard<std::mutex> lock(g_output_mutex);
  std::cerr << "tokctl: " << line << std::endl;
}

void keep_stdout_for_program() { g_stdout_kept = true; }

std::string seconds_text(double seconds) {
  std::ostringstream out;
  out << seconds;
  return out.str();
}

}  // namespace tokctl
