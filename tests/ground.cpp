#include "ground.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace {

/// Told what the library asks of the loader, before it is done.
std::function<void(const std::string&)> onLoad;

/// The loader's own function behind one of ours.
template <class Function>
Function* genuine(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// An executable's own functions come before the C library's.
extern "C" [[gnu::visibility("default")]] void* dlopen(const char* path, int mode) noexcept {
  if (onLoad) onLoad("dlopen(" + std::string(path) + ", " + std::to_string(mode) + ")");
  return genuine(dlopen, "dlopen")(path, mode);
}

extern "C" [[gnu::visibility("default")]] int dlclose(void* handle) noexcept {
  if (onLoad) onLoad("dlclose()");
  return genuine(dlclose, "dlclose")(handle);
}

Ground::Ground()
    : output_(memfd_create("stdout", 0)),
      traced_(0),
      handle_(dlopen(kModule, RTLD_NOW)),
      module(*reinterpret_cast<decltype(&mockModule)>(dlsym(handle_, "mockModule"))()) {
  // Fully buffered, so that nothing is seen of what the library forgets to flush; the buffer has to outlive
  // it.
  static char buffer[1 << 16];
  std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  static const std::string beforeAll = entryPoint("getSlotCount").call(java, {});
  EXPECT_EQ("0", beforeAll);
}

Ground::~Ground() {
  begin(State::kUnbound);
  dlclose(handle_);
  for (const char* path : {kModule, OTHER_MODULE}) {
    EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library has kept a module loaded";
  }
  close(output_);
}

void Ground::begin(State state, bool populated) {
  module.functions = module.genuine;
  module.onAnswer = nullptr;
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

std::string Ground::call(const std::string& name, const Arguments& arguments, std::size_t refusedAllocation) {
  java.clear();
  module.log.clear();
  module.yielded.clear();
  module.codes.clear();
  module.broken.clear();
  record.clear();
  buffer_.clear();
  java.onCall = [this](const std::string& line) {
    std::fflush(stdout);
    addTraces();
    add(line);
  };
  const auto onCall = module.onCall;
  module.onCall = [&](const std::string& line) {
    addTraces();  // no flush here: the library has to have flushed
    add(line);
    if (onCall) onCall(line);
  };
  onLoad = [this](const std::string& line) {
    addTraces();  // nor here: a module's own code may run
    add(line);
  };
  if (refusedAllocation != 0) java.refuse(refusedAllocation);

  std::fflush(stdout);
  const int before = dup(STDOUT_FILENO);
  dup2(output_, STDOUT_FILENO);
  traced_ = lseek(output_, 0, SEEK_END);
  const std::string answer = entryPoint(name).call(java, arguments);
  addTraces();  // nor here
  dup2(before, STDOUT_FILENO);
  close(before);

  onLoad = nullptr;
  module.onCall = onCall;
  java.onCall = nullptr;
  EXPECT_EQ(java.faults, std::vector<std::string>{});
  EXPECT_TRUE(java.balanced()) << "an input was not released";
  EXPECT_EQ(module.broken, std::vector<std::string>{});
  EXPECT_TRUE(module.searches.empty()) << "a search was not ended";
  return answer;
}

void Ground::add(std::string line) {
  const auto replace = [&](const std::string& what, const std::string& by) {
    for (auto at = line.find(what); at != std::string::npos; at = line.find(what))
      line.replace(at, what.size(), by);
  };
  replace(MOCK_MODULE, "MODULE");
  replace(OTHER_MODULE, "OTHER");
  replace(NOT_A_MODULE, "LIBRARY");
  replace("session 0x7e0000000501", "S");
  for (int i = 1; i <= 9; ++i) replace("0x7f00000000" + std::to_string(i) + "0", "O" + std::to_string(i));
  // The buffer for a signature has no fixed address; what is traced of it has to be its own.
  if (line.starts_with("\"once result = ")) buffer_ = line.substr(15, line.find('\\') - 15);
  if (buffer_.size() > 3) replace(' ' + buffer_, " BUFFER");
  if (const auto at = line.find(", at 0x"); at != std::string::npos)
    line.erase(at, line.find(',', at + 1) - at);
  record.push_back(std::move(line));
}

void Ground::addTraces() {
  std::string text(static_cast<std::size_t>(lseek(output_, 0, SEEK_END) - traced_), '\0');
  traced_ += pread(output_, text.data(), text.size(), traced_);
  for (std::size_t at = 0; at < text.size();) {
    const auto end = text.find('\n', at);
    add('"' + text.substr(at, end - at) + (end == std::string::npos ? "\"" : "\\n\""));
    at = end == std::string::npos ? end : end + 1;
  }
}

std::vector<std::pair<std::string, std::size_t>> Ground::moduleCalls() const {
  std::map<std::string, std::size_t> made;
  std::vector<std::pair<std::string, std::size_t>> all;
  for (const auto& line : module.log) all.emplace_back(mock::nameOf(line), ++made[mock::nameOf(line)]);
  return all;
}

bool Ground::called(const std::string& text) const {
  return std::ranges::any_of(module.log, [&](const auto& line) { return line.find(text) != line.npos; });
}
