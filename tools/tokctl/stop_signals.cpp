#include "stop_signals.h"

#include <pthread.h>

namespace tokctl {

StopSignals::StopSignals() {
  sigemptyset(&m_set);
  sigaddset(&m_set, SIGINT);
  sigaddset(&m_set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &m_set, nullptr);
}

StopSignals::~StopSignals() {
  if (!m_thread.joinable()) {
    return;
  }
  m_closing = true;
  pthread_kill(m_thread.native_handle(), SIGTERM);
  m_thread.join();
}

void StopSignals::start(std::function<void(int)> on_stop) {
  m_on_stop = std::move(on_stop);
  m_thread = std::thread([this] {
    int sig = 0;
    while (sigwait(&m_set, &sig) != 0) {
    }
    if (!m_closing) {
      m_on_stop(sig);
    }
  });
}

}  // namespace tokctl
