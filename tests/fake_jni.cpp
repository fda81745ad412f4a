#include "fake_jni.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "jni_function_names.h"

namespace {

template <std::size_t Slot>
void trap() {
  std::fprintf(stderr, "the library called JNI's %s, which it may not use\n", kJniFunctionNames[Slot]);
  std::abort();
}

}  // namespace

FakeJni::FakeJni() {
  functions = &table_;
  const auto setTraps = [this]<std::size_t... Slot>(std::index_sequence<Slot...>) {
    void (*const traps[])() = {trap<Slot>...};
    static_assert(sizeof traps == sizeof table_);
    std::memcpy(&table_, traps, sizeof table_);
  };
  setTraps(std::make_index_sequence<std::size(kJniFunctionNames)>());
#define FUNCTION(name, ...) define(table_.name, #name, __VA_ARGS__)
  FUNCTION(GetStringUTFChars,
           [](FakeJni& jni, auto from, auto* isCopy) { return jni.acquire<char>(from, isCopy); });
  FUNCTION(GetByteArrayElements,
           [](FakeJni& jni, auto from, auto* isCopy) { return jni.acquire<jbyte>(from, isCopy); });
  FUNCTION(ReleaseStringUTFChars, [](FakeJni& jni, auto from, auto* pointer) { jni.release(from, pointer); });
  FUNCTION(ReleaseByteArrayElements, [](FakeJni& jni, auto from, auto* pointer, auto mode) {
    require(mode == 0, "the mode is not 0");
    jni.release(from, pointer);
  });
  FUNCTION(GetArrayLength, [](FakeJni& jni, auto array) { return jni.use<jbyte>(array).size(); });
  FUNCTION(NewByteArray, [](FakeJni& jni, auto length) { return jni.create<jbyte>("byte[", length, "]"); });
  FUNCTION(NewIntArray, [](FakeJni& jni, auto length) { return jni.create<jint>("int[", length, "]"); });
  FUNCTION(NewObjectArray, [](FakeJni& jni, auto length, auto elementClass, auto initial) {
    require(initial == nullptr, "the initial element is not null");
    jni.use<jclass>(elementClass);
    return jni.create<jobject>("byte[", length, "][]");
  });
  constexpr auto setRegion = [](FakeJni& jni, auto array, auto start, auto count, auto* source) {
    jni.setRegion(array, start, count, source);
  };
  FUNCTION(SetByteArrayRegion, setRegion);
  FUNCTION(SetIntArrayRegion, setRegion);
  FUNCTION(GetObjectClass, [](FakeJni& jni, auto object) {
    jni.use<jbyte>(object);
    return jni.add("byte[].class", kLocal, Array<jclass>());
  });
  FUNCTION(SetObjectArrayElement, [](FakeJni& jni, auto array, auto index, auto element) {
    jni.use<jbyte>(element);
    jni.setRegion(array, index, 1, &element);
  });
  FUNCTION(DeleteLocalRef, [](FakeJni& jni, auto reference) {
    const auto found = jni.values_.find(reference);
    require(found != jni.values_.end() && found->second.state == kLocal, "not a local reference");
    found->second.state = kDeleted;
    --jni.local_;
  });
}

void FakeJni::clear() {
  for (auto& [reference, value] : values_)
    if (value.state == kLocal) value.state = kDeleted;
  acquired_.clear();
  log.clear();
  faults.clear();
  pending_.clear();
  allocations_ = refuseAt_ = local_ = mostLocal_ = 0;
}
