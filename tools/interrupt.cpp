#include "tools/interrupt.h"

#include <signal.h>

#include <atomic>

namespace {

std::atomic<int> g_signal{0};

void OnSignal(int signal) {
  g_signal.store(signal);
  // The next one is not caught: a stuck clean-up can still be killed.
  struct sigaction plain {};
  plain.sa_handler = SIG_DFL;
  sigaction(signal, &plain, nullptr);
}

}  // namespace

void CatchInterrupts() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a read of standard input returns, so the loop sees it.
  action.sa_flags = 0;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() { return g_signal.load() != 0; }

int InterruptedExitCode() { return 128 + g_signal.load(); }
