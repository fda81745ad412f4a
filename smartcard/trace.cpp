#include "trace.h"

#include <signal.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

namespace {

bool hasUnflushed = false;
bool brokenPipeKills;  // valid from the first unflushed trace to the end of its flush

/// Called before each trace. The first trace after a flush checks whether SIGPIPE kills this process. If it
/// does not, this one system call replaces the four that SigpipeBlocked makes at each write. The check is
/// valid only until the flush, because the host or the module can change the handler afterwards.
void beginTrace() noexcept {
  if (hasUnflushed) return;
  hasUnflushed = true;
  struct sigaction action = {};
  sigaction(SIGPIPE, nullptr, &action);
  brokenPipeKills = action.sa_handler == SIG_DFL;
}

/// While this object exists, a write to a broken pipe fails instead of killing the process. Only this
/// thread's signal mask changes, because signal handlers belong to the host. A handler of the host is called
/// as for the host's own output.
class SigpipeBlocked {
 public:
  SigpipeBlocked() noexcept {
    if (!brokenPipeKills) return;
    sigemptyset(&brokenPipe_);
    sigaddset(&brokenPipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &brokenPipe_, &before_);
    sigset_t pending;
    wasPending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  }
  SigpipeBlocked(const SigpipeBlocked&) = delete;
  SigpipeBlocked& operator=(const SigpipeBlocked&) = delete;
  ~SigpipeBlocked() {
    if (!brokenPipeKills) return;
    // Discards the signal of the failed write, but not one that the host had pending before.
    constexpr timespec noWait = {0, 0};
    if (!wasPending_) sigtimedwait(&brokenPipe_, nullptr, &noWait);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  sigset_t brokenPipe_;  // these two are set only if brokenPipeKills, to save time
  sigset_t before_;
  bool wasPending_ = false;
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
  if (!hasUnflushed) return;
  hasUnflushed = false;
  const SigpipeBlocked guard;
  static_cast<void>(std::fflush(stdout));
}
