// The native methods of FaultyModule. The JVM calls those of the first copy of the library that it loads.
// Their argument `module` is the state of the copy that they control.
#include <dlfcn.h>

#include <algorithm>

#include "com_calvenhor_vork_utils_testing_FaultyModule.h"
#include "faulty_module.h"

#define NATIVE(type, name) JNIEXPORT type JNICALL Java_com_calvenhor_vork_utils_testing_FaultyModule_##name

using namespace faulty;

namespace {

/// A module's state, with its mutex locked.
class Locked {
 public:
  explicit Locked(jlong module) : state_(*__builtin_bit_cast(State*, module)), lock_(state_.mutex) {}

  State* operator->() { return &state_; }
  Faults& faults(jint function) { return state_.faults[static_cast<std::size_t>(function)]; }
  std::size_t genuineSlot(jlong index) { return state_.genuineSlot(static_cast<std::size_t>(index)); }
  Slot& slot(jlong index) { return state_.slots[genuineSlot(index)]; }

 private:
  State& state_;
  std::lock_guard<std::mutex> lock_;
};

std::string text(JNIEnv* env, jstring string) {
  const char* const characters = env->GetStringUTFChars(string, nullptr);
  std::string copy = characters;
  env->ReleaseStringUTFChars(string, characters);
  return copy;
}

}  // namespace

NATIVE(jlong, open)(JNIEnv* env, jclass, jstring copy, jstring genuine) {
  std::string problem;
  void* const library = dlopen(text(env, copy).c_str(), RTLD_LAZY | RTLD_LOCAL);
  if (library == nullptr) {
    problem = dlerror();
  } else {
    const auto wrap = reinterpret_cast<decltype(&wrapModule)>(dlsym(library, "wrapModule"));
    const char* loadError = nullptr;
    if (State* const state = wrap(text(env, genuine).c_str(), &loadError)) {
      state->library = library;
      return __builtin_bit_cast(jlong, state);
    }
    problem = loadError != nullptr ? loadError : text(env, genuine) + " is not a PKCS#11 module";
    dlclose(library);
  }
  env->ThrowNew(env->FindClass("java/lang/UnsatisfiedLinkError"), problem.c_str());
  return 0;
}

NATIVE(jint, function)(JNIEnv* env, jclass, jstring name) {
  const std::string wanted = text(env, name);
  const auto* const row = std::ranges::find(kRows, wanted, &Row::name);
  return row == std::end(kRows) ? -1 : static_cast<jint>(row - kRows);
}

NATIVE(void, fail)(JNIEnv*, jclass, jlong module, jint function, jint nth, jlong code) {
  Locked state(module);
  Faults& faults = state.faults(function);
  faults.failures[faults.calls + static_cast<std::uint64_t>(nth)] = static_cast<CK_RV>(code);
}

NATIVE(void, delay)(JNIEnv*, jclass, jlong module, jint function, jlong nanoseconds) {
  Locked(module).faults(function).delay = std::chrono::nanoseconds(nanoseconds);
}

NATIVE(void, hang)(JNIEnv*, jclass, jlong module, jint function) {
  Locked(module).faults(function).hangs = true;
}

NATIVE(void, release)(JNIEnv*, jclass, jlong module) {
  Locked state(module);
  for (Faults& faults : state->faults) faults.hangs = false;
  ++state->releases;
  state->released.notify_all();
}

NATIVE(void, crash)(JNIEnv*, jclass, jlong module, jint function) {
  Locked(module).faults(function).crashes = true;
}

NATIVE(void, remove)(JNIEnv*, jclass, jlong module, jlong index, jint removal) {
  Locked state(module);
  state->removeCard(state.genuineSlot(index), static_cast<Removal>(removal));
}

NATIVE(void, insert)(JNIEnv*, jclass, jlong module, jlong index) {
  Locked state(module);
  state->insertCard(state.genuineSlot(index));
}

NATIVE(void, pinPad)(JNIEnv* env, jclass, jlong module, jlong index, jbyteArray pin) {
  std::optional<std::string> entered;
  if (pin != nullptr) {
    entered.emplace(static_cast<std::size_t>(env->GetArrayLength(pin)), '\0');
    env->GetByteArrayRegion(pin, 0, env->GetArrayLength(pin), reinterpret_cast<jbyte*>(entered->data()));
  }
  Locked state(module);
  state.slot(index).hasPinPad = true;
  state.slot(index).padPin = entered;
}

NATIVE(void, tries)(JNIEnv*, jclass, jlong module, jlong index, jint count) {
  Locked state(module);
  state.slot(index).tries = static_cast<unsigned>(count);
  state.slot(index).wrongPins = 0;
}

NATIVE(void, slots)(JNIEnv* env, jclass, jlong module, jlongArray order) {
  std::vector<jlong> wanted(static_cast<std::size_t>(env->GetArrayLength(order)));
  env->GetLongArrayRegion(order, 0, static_cast<jsize>(wanted.size()), wanted.data());
  Locked(module)->wantedOrder.assign(wanted.begin(), wanted.end());
}

NATIVE(jstring, takeCalls)(JNIEnv* env, jclass, jlong module) {
  std::string names;
  for (const Function function : std::exchange(Locked(module)->calls, {}))
    names.append(names.empty() ? "" : " ").append(kRows[function].name);
  return env->NewStringUTF(names.c_str());
}

NATIVE(void, close)(JNIEnv* env, jclass, jlong module, jstring copy) {
  void* const library = Locked(module)->library;
  void* const genuine = Locked(module)->genuineLibrary;
  dlclose(library);
  // If the application still has the copy loaded, it may call the genuine module, which must stay loaded too.
  void* const loaded = dlopen(text(env, copy).c_str(), RTLD_LAZY | RTLD_NOLOAD);
  dlclose(loaded != nullptr ? loaded : genuine);
}
