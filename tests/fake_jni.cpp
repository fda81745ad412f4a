#include "fake_jni.h"

FakeJni::FakeJni() : table_() {
  functions = &table_;
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
    --jni.locals_;
  });
}

std::string FakeJni::format(jobject reference) const {
  if (reference == nullptr) return "null";
  const auto& content = values_.at(reference).content;
  const auto element = [this](auto value) {
    if constexpr (std::is_pointer_v<decltype(value)>) return format(value);
    if constexpr (std::is_same_v<decltype(value), jint>) return text(value);
    const char* const digits = "0123456789abcdef";
    if constexpr (sizeof value == 1) return std::string{digits[value >> 4 & 0xf], digits[value & 0xf]};
  };
  std::string all;
  std::visit(
      [&](const auto& values) {
        for (const auto value : values) all += (all.empty() ? "" : " ") + element(value);
      },
      content);
  return std::holds_alternative<Array<jint>>(content) ? '[' + all + ']' : '{' + all + '}';
}

void FakeJni::clear() {
  for (auto& [reference, value] : values_)
    if (value.state == kLocal) value.state = kDeleted;
  acquired_.clear();
  log.clear();
  violations.clear();
  hasError_ = false;
  locals_ = 0;
  allocations_ = refuseAt_ = 0;
}
