// A broken standard output changes no result and does not kill the process.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "fixture.h"

namespace {

class Output : public Fixture, public testing::WithParamInterface<int> {
 protected:
  Output() {
    if (GetParam() == _IONBF) std::setvbuf(stdout, nullptr, _IONBF, 0);
  }

  /// Runs before each entry point, and during each call to the module or the loader.
  std::function<void()> interfere = [] {};

  /// The results of some entry points that trace, while standard output is this file, or closed if it is -1.
  std::string runWithOutput(int file) {
    begin(State::kUnbound, true);
    std::fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    close(STDOUT_FILENO);
    if (file >= 0) dup2(file, STDOUT_FILENO);
    onLoad = module.onCall = [&](const std::string&) { interfere(); };
    std::string results;
    for (const char* name :
         {"init", "openSession", "login", "readAllCertificates", "sign", "writePrivateKey"}) {
      interfere();
      results += entryPoint(name).call(java, entryPoint(name).arguments) + ' ';
    }
    results += entryPoint("init").call(java, {NOT_A_MODULE});
    onLoad = module.onCall = nullptr;
    dup2(before, STDOUT_FILENO);
    close(before);
    return results;
  }

  /// A pipe without a reader.
  static int brokenPipe() {
    int ends[2];
    if (pipe(ends) != 0) return -1;
    close(ends[0]);
    return ends[1];
  }
};

TEST_P(Output, BrokenOutputHasNoEffect) {
  const std::string results = runWithOutput(open("/dev/null", O_WRONLY));
  EXPECT_TRUE(results.starts_with("0 0 0 {{00} {69 64}") && results.ends_with("} 0 -2")) << results;
  signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(results, runWithOutput(-1)) << "closed";
  EXPECT_EQ(results, runWithOutput(open("/dev/full", O_WRONLY))) << "a full disk";
  EXPECT_EQ(results, runWithOutput(brokenPipe())) << "a broken pipe";
  for (bool kills : {true, false}) {
    interfere = [&] { signal(SIGPIPE, (kills = !kills) ? SIG_DFL : SIG_IGN); };
    EXPECT_EQ(results, runWithOutput(brokenPipe())) << "a handler that changes";
  }
  interfere = [] {};
  static int handled = 0;
  signal(SIGPIPE, [](int) { ++handled; });
  EXPECT_EQ(results, runWithOutput(brokenPipe())) << "a handler of the host";
  EXPECT_GT(handled, 0);
  signal(SIGPIPE, SIG_DFL);

  sigset_t signals;
  sigpending(&signals);
  EXPECT_FALSE(sigismember(&signals, SIGPIPE)) << "the library left a signal pending";
  pthread_sigmask(SIG_BLOCK, nullptr, &signals);
  EXPECT_FALSE(sigismember(&signals, SIGPIPE));
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  pthread_sigqueue(pthread_self(), SIGPIPE, {.sival_int = 7});
  runWithOutput(brokenPipe());
  constexpr timespec noWait = {0, 0};
  siginfo_t pending = {};
  EXPECT_EQ(sigtimedwait(&signals, &pending, &noWait), SIGPIPE) << "the host's own signal was lost";
  EXPECT_EQ(pending.si_value.sival_int, 7) << "the host's own signal was replaced";
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// Buffered traces are written by the flush, unbuffered ones by each trace.
INSTANTIATE_TEST_SUITE_P(BufferedOrNot, Output, testing::Values(_IOFBF, _IONBF));

}  // namespace
