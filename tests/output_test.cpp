// Traces are a courtesy: whatever becomes of standard output, results are the same and nobody is killed.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "ground.h"

namespace {

class BrokenOutput : public Ground {
 protected:
  /// The answers of some entry points that trace, with standard output at this file, or nowhere.
  std::string answersAt(int file) {
    std::fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    close(STDOUT_FILENO);
    if (file >= 0) dup2(file, STDOUT_FILENO);
    std::string answers;
    for (const char* name :
         {"init", "openSession", "login", "readAllCertificates", "sign", "writePrivateKey"}) {
      for (const auto& entry : entryPoints()) {
        if (entry.name == name) answers += entry.call(java, entry.arguments) + ' ';
      }
    }
    dup2(before, STDOUT_FILENO);
    close(before);
    ENTRY(finalize)(java.env(), nullptr);
    return answers;
  }
};

TEST_F(BrokenOutput, ChangesNoResultAndKillsNobody) {
  populate(module);
  const std::string answers = answersAt(open("/dev/null", O_WRONLY));
  EXPECT_TRUE(answers.starts_with("0 0 0 {{00} {69 64}")) << answers;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
  const std::pair<const char*, int> outputs[] = {
      {"closed", -1}, {"a full disk", open("/dev/full", O_WRONLY)}, {"a broken pipe", ends[1]}};
  for (const auto& [output, file] : outputs) {
    module.reset();
    populate(module);
    EXPECT_EQ(answers, answersAt(file)) << output;
  }
  sigset_t signals;
  sigpending(&signals);
  EXPECT_FALSE(sigismember(&signals, SIGPIPE)) << "left for the host to stumble over";
  pthread_sigmask(SIG_BLOCK, nullptr, &signals);
  EXPECT_FALSE(sigismember(&signals, SIGPIPE));
}

// A SIGPIPE that the host has blocked and not yet looked at stays the host's.
TEST_F(BrokenOutput, LeavesTheHostsOwnSignalAlone) {
  sigset_t brokenPipe;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  raise(SIGPIPE);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  answersAt(ends[1]);
  constexpr timespec atOnce = {0, 0};
  EXPECT_EQ(sigtimedwait(&brokenPipe, nullptr, &atOnce), SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &brokenPipe, nullptr);
}

}  // namespace
