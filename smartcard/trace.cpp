#include "trace.h"

#include <signal.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

namespace {

bool waiting = false;  // something that has been traced has not been flushed
bool brokenPipeKills;  // while something is waiting, and for its flush

/// Precedes each trace. The first one after a flush asks what a broken pipe does to this process: one system
/// call, which spares a process that survives it the guard's four at every write. The answer holds only until
/// the flush, because the host can change it between two calls, and the module whenever it runs.
void beginTrace() noexcept {
  if (waiting) return;
  waiting = true;
  struct sigaction action = {};
  sigaction(SIGPIPE, nullptr, &action);
  brokenPipeKills = action.sa_handler == SIG_DFL;
}

/// While it lives, writing to a pipe that nobody reads fails instead of killing the process. Only this
/// thread's signal mask changes, and only for that time: handlers belong to the host. One that it has is
/// called as for its own prints.
class SigpipeBlocked {
 public:
  SigpipeBlocked() noexcept {
    if (!brokenPipeKills) return;
    sigemptyset(&brokenPipe_);
    sigaddset(&brokenPipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &brokenPipe_, &before_);
    sigset_t pending;
    isHosts_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  }
  SigpipeBlocked(const SigpipeBlocked&) = delete;
  SigpipeBlocked& operator=(const SigpipeBlocked&) = delete;
  ~SigpipeBlocked() {
    if (!brokenPipeKills) return;
    // Reporting a trace that could not be written is nobody's job: no result may depend on it.
    constexpr timespec atOnce = {0, 0};
    if (!isHosts_) sigtimedwait(&brokenPipe_, nullptr, &atOnce);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  sigset_t brokenPipe_;  // these two only where a broken pipe kills: a trace is to cost nothing but its text
  sigset_t before_;
  bool isHosts_ = false;
};

}  // namespace

void trace(const char* format, ...) noexcept {
  beginTrace();
  const SigpipeBlocked guard;
  va_list values;
  va_start(values, format);
  std::vprintf(format, values);
  va_end(values);
}

void traceBytes(const char* heading, std::span<const CK_BYTE> bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text = heading;
  text.reserve(text.size() + 3 * bytes.size() + 1);
  for (const CK_BYTE byte : bytes) {
    if (byte > 0xf) text += digits[byte >> 4U];
    text += digits[byte & 0xfU];
    text += ' ';
  }
  text += '\n';
  beginTrace();
  const SigpipeBlocked guard;
  static_cast<void>(std::fputs(text.c_str(), stdout));
}

void flushTraces() noexcept {
  if (!waiting) return;
  waiting = false;
  const SigpipeBlocked guard;
  static_cast<void>(std::fflush(stdout));
}
