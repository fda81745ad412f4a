#include "ground.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

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

namespace {

std::string hex(const Bytes& bytes) {
  std::ostringstream out;
  for (const int byte : bytes) {
    out << (out.str().empty() ? "" : " ") << (byte < 16 ? "0" : "") << std::hex << byte;
  }
  return '{' + out.str() + '}';
}

}  // namespace

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

void Ground::checkLeftovers() {
  EXPECT_EQ(java.faults, std::vector<std::string>{});
  EXPECT_TRUE(java.balanced()) << "an input was not released";
  EXPECT_EQ(module.activeSearches(), 0U) << "a search was not ended";
}

void Ground::bindAndOpen() {
  ASSERT_CKR(CKR_OK, bind());
  ASSERT_CKR(CKR_OK, call(ENTRY(openSession), 0));
}

void Ground::bindAndLogin() {
  bindAndOpen();
  ASSERT_CKR(CKR_OK, call(ENTRY(login), 0, string("1234"), CKU_USER));
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

std::string Ground::shown(jbyteArray array) { return array == nullptr ? "null" : hex(java.bytesOf(array)); }

std::string Ground::shown(jintArray array) {
  if (array == nullptr) return "null";
  std::string all;
  for (const auto number : java.intsOf(array)) all += (all.empty() ? "" : " ") + std::to_string(number);
  return '[' + all + ']';
}

std::string Ground::shown(jobjectArray array) {
  if (array == nullptr) return "null";
  std::string all;
  for (const jobject element : java.elementsOf(array)) {
    all += (all.empty() ? "" : " ") + (element == nullptr ? "null" : hex(java.bytesOf(element)));
  }
  return '{' + all + '}';
}
