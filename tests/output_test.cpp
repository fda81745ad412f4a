// Traces are a courtesy: whatever becomes of standard output, results are the same and nobody is killed.

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

  /// What is done before each call, and when the module or the loader is at work.
  std::function<void()> meanwhile = [] {};

  /// The answers of some entry points that trace, with standard output at this file or nowhere.
  std::string answersAt(int file) {
    begin(State::kUnbound, true);
    std::fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    close(STDOUT_FILENO);
    if (file >= 0) dup2(file, STDOUT_FILENO);
    onLoad = module.onCall = [&](const std::string&) { meanwhile(); };
    std::string answers;
    for (const char* name :
         {"init", "openSession", "login", "readAllCertificates", "sign", "writePrivateKey"}) {
      meanwhile();
      answers += entryPoint(name).call(java, entryPoint(name).arguments) + ' ';
    }
    answers += entryPoint("init").call(java, {NOT_A_MODULE});
    onLoad = module.onCall = nullptr;
    dup2(before, STDOUT_FILENO);
    close(before);
    return answers;
  }

  /// A pipe that nobody reads.
  static int brokenPipe() {
    int ends[2];
    if (pipe(ends) != 0) return -1;
    close(ends[0]);
    return ends[1];
  }
};

TEST_P(Output, ThatIsBrokenChangesNoResultAndKillsNobody) {
  const std::string answers = answersAt(open("/dev/null", O_WRONLY));
  EXPECT_TRUE(answers.starts_with("0 0 0 {{00} {69 64}") && answers.ends_with("} 0 -2")) << answers;
  signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(answers, answersAt(-1)) << "closed";
  EXPECT_EQ(answers, answersAt(open("/dev/full", O_WRONLY))) << "a full disk";
  EXPECT_EQ(answers, answersAt(brokenPipe())) << "a broken pipe";
  for (bool kills : {true, false}) {
    meanwhile = [&] { signal(SIGPIPE, (kills = !kills) ? SIG_DFL : SIG_IGN); };
    EXPECT_EQ(answers, answersAt(brokenPipe())) << "one that kills every other time";
  }
  meanwhile = [] {};
  static int heard = 0;
  signal(SIGPIPE, [](int) { ++heard; });
  EXPECT_EQ(answers, answersAt(brokenPipe())) << "one that the host hears of";
  EXPECT_GT(heard, 0);
  signal(SIGPIPE, SIG_DFL);

  sigset_t signals;
  sigpending(&signals);
  EXPECT_FALSE(sigismember(&signals, SIGPIPE)) << "left for the host to stumble over";
  pthread_sigmask(SIG_BLOCK, nullptr, &signals);
  EXPECT_FALSE(sigismember(&signals, SIGPIPE));
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  pthread_sigqueue(pthread_self(), SIGPIPE, {.sival_int = 7});
  answersAt(brokenPipe());
  constexpr timespec atOnce = {0, 0};
  siginfo_t left = {};
  EXPECT_EQ(sigtimedwait(&signals, &left, &atOnce), SIGPIPE) << "the host's own signal was eaten";
  EXPECT_EQ(left.si_value.sival_int, 7) << "and another left in its place";
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// Buffered, traces are written when they are flushed; unbuffered, as they are made.
INSTANTIATE_TEST_SUITE_P(BufferedOrNot, Output, testing::Values(_IOFBF, _IONBF));

}  // namespace
