#include "fixture.h"

#include <dlfcn.h>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace {

// Standard output is fully buffered, so that the tests find traces that the library did not flush.
char buffer[1 << 16];

/// Overwrites the stack below, so that a variable that the library does not initialise is not 0 by chance.
[[gnu::noinline]] void dirtyStack() {
  volatile char dirt[1 << 12];
  for (auto& byte : dirt) byte = 0x55;
}

/// The loader's function that a function of this file replaces.
template <class Function>
Function* original(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

std::function<void(const std::string&)> Fixture::onLoad;

// The functions of an executable take precedence over those of the C library.
extern "C" [[gnu::visibility("default")]] void* dlopen(const char* path, int mode) noexcept {
  if (Fixture::onLoad) Fixture::onLoad("dlopen(" + std::string(path) + ", " + std::to_string(mode) + ")");
  return original(dlopen, "dlopen")(path, mode);
}

extern "C" [[gnu::visibility("default")]] int dlclose(void* handle) noexcept {
  if (Fixture::onLoad) Fixture::onLoad("dlclose()");
  return original(dlclose, "dlclose")(handle);
}

Fixture::Fixture()
    : output_(memfd_create("stdout", 0)),
      traced_(0),
      handle_(dlopen(kModule, RTLD_NOW)),
      module(*reinterpret_cast<decltype(&mockModule)>(dlsym(handle_, "mockModule"))()) {
  std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  static const std::string beforeAll = entryPoint("getSlotCount").call(java, {});
  EXPECT_EQ("0", beforeAll);
}

Fixture::~Fixture() {
  begin(State::kUnbound);
  dlclose(handle_);
  for (const char* path : {kModule, OTHER_MODULE}) {
    EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library did not unload a module";
  }
  close(output_);
}

void Fixture::begin(State state, bool populated) {
  module.functions = module.genuine;
  module.onReturn = nullptr;
  module.onCall = nullptr;
  call("finalize", {});
  module.reset();
  if (populated) populate(module);
  if (state == State::kUnbound) return;
  ASSERT_EQ("0", call("init", {kModule}));
  if (state == State::kBound) return;
  ASSERT_EQ("0", call("openSession", {0}));
  if (state == State::kOpen) return;
  const bool officer = state == State::kSecurityOfficer;
  ASSERT_EQ("0", call("login", {0, officer ? "12345678" : "1234", officer ? CKU_SO : CKU_USER}));
}

std::string Fixture::call(const std::string& name, const Arguments& arguments,
                          std::size_t refusedAllocation) {
  java.clear();
  module.log.clear();
  module.returnedHandles.clear();
  module.codes.clear();
  module.violations.clear();
  record.clear();
  buffer_.clear();
  java.onCall = [this](const std::string& line) {
    addTraces();
    add(line);
  };
  const auto onCall = module.onCall;
  module.onCall = [&](const std::string& line) {
    addLeaving(line);
    if (onCall) onCall(line);
  };
  onLoad = [this](const std::string& line) { addLeaving(line); };
  if (refusedAllocation != 0) java.refuse(refusedAllocation);

  std::fflush(stdout);
  const int before = dup(STDOUT_FILENO);
  dup2(output_, STDOUT_FILENO);
  EXPECT_EQ(ftruncate(output_, 0), 0);
  traced_ = static_cast<std::size_t>(lseek(output_, 0, SEEK_SET));
  dirtyStack();
  const std::string result = entryPoint(name).call(java, arguments);
  addLeaving("");
  dup2(before, STDOUT_FILENO);
  close(before);

  onLoad = nullptr;
  module.onCall = onCall;
  java.onCall = nullptr;
  EXPECT_EQ(java.violations, std::vector<std::string>{});
  EXPECT_TRUE(java.hasReleasedAll()) << "an input was not released";
  EXPECT_EQ(module.violations, std::vector<std::string>{});
  EXPECT_TRUE(module.searches.empty()) << "a search was not ended";
  return result;
}

void Fixture::add(std::string line) {
  const auto replace = [&](const std::string& text, const std::string& by) {
    for (auto at = line.find(text); at != std::string::npos; at = line.find(text))
      line.replace(at, text.size(), by);
  };
  replace(MOCK_MODULE, "MODULE");
  replace(OTHER_MODULE, "OTHER");
  replace(NOT_A_MODULE, "LIBRARY");
  replace("session 0x7e0000000501", "S");
  for (int i = 1; i <= 9; ++i) replace("0x7f00000000" + std::to_string(i) + "0", "O" + std::to_string(i));
  // The signature buffer has no fixed address. Later traces must show the same one.
  if (line.starts_with("\"once result = ")) buffer_ = line.substr(15, line.find('\\') - 15);
  if (buffer_.size() > 3) replace(' ' + buffer_, " BUFFER");
  if (const auto at = line.find(", at 0x"); at != std::string::npos)
    line.erase(at, line.find(',', at + 1) - at);
  record.push_back(std::move(line));
}

void Fixture::addTraces() {
  std::string text(static_cast<std::size_t>(lseek(output_, 0, SEEK_END)), '\0');
  text.resize(static_cast<std::size_t>(pread(output_, text.data(), text.size(), 0)));
  text.append(buffer, __fpending(stdout));
  while (traced_ < text.size()) {
    const auto end = std::min(text.find('\n', traced_), text.size());
    add('"' + text.substr(traced_, end - traced_) + (end == text.size() ? "\"" : "\\n\""));
    traced_ = std::min(end + 1, text.size());
  }
}

/// Records that control leaves the library: a call to the module or the loader, or the return to Java. All
/// traces must be flushed.
void Fixture::addLeaving(const std::string& line) {
  addTraces();
  EXPECT_EQ(__fpending(stdout), 0U) << "a trace is not flushed: " << record.back();
  if (!line.empty()) add(line);
}

std::vector<std::pair<std::string, std::size_t>> Fixture::moduleCalls() const {
  std::map<std::string, std::size_t> counts;
  std::vector<std::pair<std::string, std::size_t>> all;
  for (const auto& line : module.log) all.emplace_back(mock::nameOf(line), ++counts[mock::nameOf(line)]);
  return all;
}

bool Fixture::called(const std::string& text) const {
  return std::ranges::any_of(module.log, [&](const auto& line) { return line.find(text) != line.npos; });
}
