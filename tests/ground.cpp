#include "ground.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

Output::Output() : file_(memfd_create("stdout", 0)), before_(dup(STDOUT_FILENO)) {
  std::fflush(stdout);
  dup2(file_, STDOUT_FILENO);
}

Output::~Output() {
  dup2(before_, STDOUT_FILENO);
  close(before_);
  close(file_);
}

std::string Output::written() const {
  std::string all(static_cast<std::size_t>(lseek(file_, 0, SEEK_END)), '\0');
  if (pread(file_, all.data(), all.size(), 0) != static_cast<ssize_t>(all.size())) return "unreadable";
  return all;
}

std::string Output::of(const std::function<void()>& run) {
  const Output output;
  run();
  return output.written();  // no flush here: the library has to have flushed
}

Ground::Ground()
    : handle_(dlopen(kModule, RTLD_NOW)),
      module(*reinterpret_cast<decltype(&mockModule)>(dlsym(handle_, "mockModule"))()) {}

Ground::~Ground() {
  // Back to genuine functions, so that no test's oddity meets the next test's binding.
  module.functions = module.genuine;
  module.onCall = nullptr;
  ENTRY(finalize)(java.env(), nullptr);
  dlclose(handle_);
  EXPECT_EQ(dlopen(kModule, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library has kept the module loaded";
}

void Ground::observe(const std::function<void()>& run) {
  java.clear();
  module.log.clear();
  module.yielded.clear();
  traces = Output::of(run);
  EXPECT_EQ(java.faults, std::vector<std::string>{});
  EXPECT_TRUE(java.balanced()) << "an input was not released";
  EXPECT_EQ(module.activeSearches(), 0U) << "a search was not ended";
  for (const auto& line : module.log) {
    for (const std::string what : {" object 0x", " key 0x"}) {
      const auto at = line.find(what);
      if (at == std::string::npos) continue;
      const CK_OBJECT_HANDLE handle = std::stoul(line.substr(at + what.size()), nullptr, 16);
      EXPECT_TRUE(module.yielded.contains(handle)) << line << " with a handle that the call did not get";
    }
  }
}

void Ground::bindAndOpen() {
  ASSERT_CKR(CKR_OK, bind());
  ASSERT_CKR(CKR_OK, call(ENTRY(openSession), 0));
}

void Ground::bindAndLogin() {
  bindAndOpen();
  ASSERT_CKR(CKR_OK, call(ENTRY(login), 0, string("1234"), CKU_USER));
}

void Ground::prepare(const EntryPoint& entry) {
  ENTRY(finalize)(java.env(), nullptr);
  module.reset();
  populate(module);
  if (entry.state == State::kUnbound) return;
  ASSERT_CKR(CKR_OK, bind());
  if (entry.state == State::kBound) return;
  ASSERT_CKR(CKR_OK, call(ENTRY(openSession), 0));
  if (entry.state == State::kOpen) return;
  const bool officer = entry.state == State::kSecurityOfficer;
  ASSERT_CKR(CKR_OK,
             call(ENTRY(login), 0, string(officer ? "12345678" : "1234"), officer ? CKU_SO : CKU_USER));
}

std::string Ground::run(const EntryPoint& entry, const Arguments& arguments, std::size_t refusedAllocation) {
  std::string answer;
  observe([&] {
    if (refusedAllocation != 0) java.refuse(refusedAllocation);
    answer = entry.call(java, arguments);
  });
  return answer;
}

std::string Ground::calls() const {
  std::string all;
  for (const auto& line : module.log) all += line + '\n';
  const auto replace = [&](const std::string& what, const std::string& by) {
    for (auto at = all.find(what); at != std::string::npos; at = all.find(what))
      all.replace(at, what.size(), by);
  };
  replace("session 0x7e0000000501", "S");
  for (int i = 1; i <= 9; ++i) replace("0x7f00000000" + std::to_string(i) + "0", "O" + std::to_string(i));
  return all;
}

std::string Ground::jniCalls() const {
  std::string all;
  for (const auto& line : java.log) all += (all.empty() ? "" : " ") + line;
  return all;
}
