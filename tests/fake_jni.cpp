#include "fake_jni.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "jni_function_names.h"

namespace {

/// No virtual machine has an endless heap.
constexpr jsize kLargestArray = 1 << 26;

constexpr std::size_t kSlots = sizeof(JNINativeInterface_) / sizeof(void*);
static_assert(std::size(kJniFunctionNames) == kSlots, "the names and the table come from different JDKs");

// One trap stands in for functions of all types, which clang's sanitizer would report in place of the name.
#ifdef __clang__
#define ANY_TYPE [[clang::no_sanitize("function")]]
#else
#define ANY_TYPE
#endif

template <std::size_t Slot>
ANY_TYPE void trap() {
  std::fprintf(stderr, "the library called JNI's %s, which is none of the functions it may use\n",
               kJniFunctionNames[Slot]);
  std::abort();
}

template <std::size_t... Slots>
JNINativeInterface_ trapsOnly(std::index_sequence<Slots...>) {
  const std::array<void (*)(), kSlots> traps = {trap<Slots>...};
  JNINativeInterface_ table;
  static_assert(sizeof traps == sizeof table);
  std::memcpy(&table, traps.data(), sizeof table);
  return table;
}

}  // namespace

JNINativeInterface_ FakeJni::table() {
  JNINativeInterface_ table = trapsOnly(std::make_index_sequence<kSlots>());

  table.GetStringUTFChars = [](JNIEnv* env, jstring string, jboolean* isCopy) -> const char* {
    FakeJni& jni = of(env);
    jni.enter("GetStringUTFChars(" + jni.nameOf(string) + ")");
    if (isCopy != nullptr) jni.faults.push_back("GetStringUTFChars: isCopy is not null");
    return reinterpret_cast<const char*>(jni.acquire(string, Type::kString));
  };
  table.ReleaseStringUTFChars = [](JNIEnv* env, jstring string, const char* characters) {
    FakeJni& jni = of(env);
    jni.record("ReleaseStringUTFChars(" + jni.nameOf(string) + ")");
    jni.release(string, Type::kString, characters);
  };
  table.GetByteArrayElements = [](JNIEnv* env, jbyteArray array, jboolean* isCopy) {
    FakeJni& jni = of(env);
    jni.enter("GetByteArrayElements(" + jni.nameOf(array) + ")");
    if (isCopy != nullptr) jni.faults.push_back("GetByteArrayElements: isCopy is not null");
    return jni.acquire(array, Type::kBytes);
  };
  table.ReleaseByteArrayElements = [](JNIEnv* env, jbyteArray array, jbyte* elements, jint mode) {
    FakeJni& jni = of(env);
    jni.record("ReleaseByteArrayElements(" + jni.nameOf(array) + ", " + std::to_string(mode) + ")");
    if (mode != 0) jni.faults.push_back(jni.log.back() + ": the mode is not 0");
    jni.release(array, Type::kBytes, elements);
  };
  table.GetArrayLength = [](JNIEnv* env, jarray array) {
    FakeJni& jni = of(env);
    jni.enter("GetArrayLength(" + jni.nameOf(array) + ")");
    const Value* value = jni.use(array, Type::kBytes);
    return value == nullptr ? 0 : static_cast<jsize>(value->bytes.size());
  };
  table.NewByteArray = [](JNIEnv* env, jsize length) {
    const std::string size = std::to_string(length);
    of(env).enter("NewByteArray(" + size + ")");
    return static_cast<jbyteArray>(of(env).create("byte[" + size + "]", Type::kBytes, length));
  };
  table.NewIntArray = [](JNIEnv* env, jsize length) {
    const std::string size = std::to_string(length);
    of(env).enter("NewIntArray(" + size + ")");
    return static_cast<jintArray>(of(env).create("int[" + size + "]", Type::kInts, length));
  };
  table.NewObjectArray = [](JNIEnv* env, jsize length, jclass elementClass, jobject initial) {
    FakeJni& jni = of(env);
    const std::string size = std::to_string(length);
    jni.enter("NewObjectArray(" + size + ", " + jni.nameOf(elementClass) + ")");
    if (initial != nullptr) jni.faults.push_back(jni.log.back() + ": the initial element is not null");
    const bool usable = jni.use(elementClass, Type::kByteArrayClass) != nullptr;
    return static_cast<jobjectArray>(usable ? jni.create("byte[" + size + "][]", Type::kObjects, length)
                                            : nullptr);
  };
  table.SetByteArrayRegion = [](JNIEnv* env, jbyteArray array, jsize start, jsize count,
                                const jbyte* source) {
    of(env).setRegion(array, Type::kBytes, &Value::bytes, start, count, source);
  };
  table.SetIntArrayRegion = [](JNIEnv* env, jintArray array, jsize start, jsize count, const jint* source) {
    of(env).setRegion(array, Type::kInts, &Value::ints, start, count, source);
  };
  table.GetObjectClass = [](JNIEnv* env, jobject object) {
    FakeJni& jni = of(env);
    jni.enter("GetObjectClass(" + jni.nameOf(object) + ")");
    if (jni.use(object, Type::kBytes) == nullptr) return jclass{};
    return static_cast<jclass>(jni.refer(jni.add("byte[].class", Type::kByteArrayClass), Origin::kCall));
  };
  table.SetObjectArrayElement = [](JNIEnv* env, jobjectArray array, jsize index, jobject element) {
    FakeJni& jni = of(env);
    jni.enter("SetObjectArrayElement(" + jni.nameOf(array) + ", " + std::to_string(index) + ", " +
              jni.nameOf(element) + ")");
    Value* target = jni.use(array, Type::kObjects);
    Value* value = element == nullptr ? nullptr : jni.use(element, Type::kBytes);
    if (target == nullptr) return;
    if (index >= 0 && index < static_cast<jsize>(target->elements.size())) {
      target->elements[static_cast<std::size_t>(index)] = value;
    } else {
      jni.faults.push_back(jni.log.back() + ": outside the array");
      jni.pending_ = "ArrayIndexOutOfBoundsException";
    }
  };
  table.DeleteLocalRef = [](JNIEnv* env, jobject reference) {
    FakeJni& jni = of(env);
    jni.record("DeleteLocalRef(" + jni.nameOf(reference) + ")");
    const auto found = jni.references_.find(reference);
    if (reference == nullptr) return;
    if (found == jni.references_.end() || found->second.origin != Origin::kCall) {
      jni.faults.push_back(jni.log.back() + ": not a local reference of this call");
      return;
    }
    found->second.origin = Origin::kDeleted;
    --jni.local_;
  };
  return table;
}

FakeJni::FakeJni() : env_{}, functions_(table()) {
  env_.functions = &functions_;
  env_.owner = this;
}

jbyteArray FakeJni::bytes(std::string name, std::vector<std::uint8_t> elements) {
  Value* value = add(std::move(name), Type::kBytes);
  value->bytes.assign(elements.begin(), elements.end());
  return static_cast<jbyteArray>(refer(value, Origin::kTest));
}

jstring FakeJni::string(std::string name, std::string characters) {
  Value* value = add(std::move(name), Type::kString);
  value->bytes.assign(characters.c_str(), characters.c_str() + characters.size() + 1);
  return static_cast<jstring>(refer(value, Origin::kTest));
}

std::vector<std::uint8_t> FakeJni::bytesOf(jobject array) const {
  const Value& value = result(array, Type::kBytes);
  return {value.bytes.begin(), value.bytes.end()};
}

std::vector<std::int32_t> FakeJni::intsOf(jobject array) const { return result(array, Type::kInts).ints; }

std::vector<jobject> FakeJni::elementsOf(jobject array) {
  std::vector<jobject> elements;
  for (Value* value : result(array, Type::kObjects).elements)
    elements.push_back(value == nullptr ? nullptr : refer(value, Origin::kTest));
  return elements;
}

void FakeJni::clear() {
  for (auto& [handle, reference] : references_)
    if (reference.origin == Origin::kCall) reference.origin = Origin::kDeleted;
  acquisitions_.clear();
  log.clear();
  faults.clear();
  pending_.clear();
  allocations_ = refuseAt_ = local_ = mostLocal_ = 0;
}

FakeJni::Value* FakeJni::add(std::string name, Type type) {
  return &values_.emplace_back(Value{std::move(name), type, {}, {}, {}});
}

/// References are no addresses: whoever dereferences one crashes.
jobject FakeJni::refer(Value* value, Origin origin) {
  const auto handle = reinterpret_cast<jobject>((references_.size() + 1) * 0x10);
  references_[handle] = {value, origin};
  if (origin == Origin::kCall) mostLocal_ = std::max(mostLocal_, ++local_);
  return handle;
}

const FakeJni::Value& FakeJni::result(jobject reference, Type type) const {
  const auto found = references_.find(reference);
  if (found == references_.end() || found->second.value->type != type)
    throw std::invalid_argument("expected another type of result, but got " + nameOf(reference));
  return *found->second.value;
}

std::string FakeJni::nameOf(jobject reference) const {
  if (reference == nullptr) return "null";
  const auto found = references_.find(reference);
  return found == references_.end() ? "foreign" : found->second.value->name;
}

void FakeJni::enter(const std::string& call) {
  record(call);
  if (!pending_.empty()) faults.push_back(call + ": called while " + pending_ + " is pending");
}

/// The value that the call just logged may use, or null and a fault.
FakeJni::Value* FakeJni::use(jobject reference, Type type) {
  const auto found = references_.find(reference);
  const char* fault = nullptr;
  if (reference == nullptr)
    fault = ": a null reference";
  else if (found == references_.end())
    fault = ": not a reference of this virtual machine";
  else if (found->second.origin == Origin::kDeleted)
    fault = ": a deleted local reference";
  else if (found->second.value->type != type)
    fault = ": a reference of another type";
  if (fault == nullptr) return found->second.value;
  faults.push_back(log.back() + fault);
  return nullptr;
}

bool FakeJni::refused() {
  if (++allocations_ != refuseAt_) return false;
  pending_ = "OutOfMemoryError";
  return true;
}

jobject FakeJni::create(std::string name, Type type, jsize length) {
  if (refused()) return nullptr;
  if (length > kLargestArray) {
    pending_ = "OutOfMemoryError";
    return nullptr;
  }
  if (length < 0) {
    faults.push_back(log.back() + ": a negative length");
    pending_ = "NegativeArraySizeException";
    return nullptr;
  }
  Value* value = add(std::move(name), type);
  const auto size = static_cast<std::size_t>(length);
  if (type == Type::kBytes) value->bytes.resize(size);
  if (type == Type::kInts) value->ints.resize(size);
  if (type == Type::kObjects) value->elements.resize(size);
  return refer(value, Origin::kCall);
}

template <class Element>
void FakeJni::setRegion(jobject array, Type type, std::vector<Element> Value::*elements, jsize start,
                        jsize count, const Element* source) {
  enter(std::string(type == Type::kBytes ? "SetByteArrayRegion(" : "SetIntArrayRegion(") + nameOf(array) +
        ", " + std::to_string(start) + ", " + std::to_string(count) + ")");
  Value* value = use(array, type);
  if (value == nullptr) return;
  if (start < 0 || count < 0 ||
      start + std::int64_t{count} > static_cast<std::int64_t>((value->*elements).size())) {
    faults.push_back(log.back() + ": outside the array");
    pending_ = "ArrayIndexOutOfBoundsException";
  } else if (source == nullptr && count > 0) {
    faults.push_back(log.back() + ": from a null pointer");
  } else {
    std::copy_n(source, count, (value->*elements).begin() + start);
  }
}

jbyte* FakeJni::acquire(jobject from, Type type) {
  Value* value = use(from, type);
  if (value == nullptr || refused()) return nullptr;
  auto copy = std::make_unique<jbyte[]>(value->bytes.size());
  std::copy(value->bytes.begin(), value->bytes.end(), copy.get());
  jbyte* const pointer = copy.get();
  acquisitions_[pointer] = {value, std::move(copy)};
  return pointer;
}

void FakeJni::release(jobject from, Type type, const void* pointer) {
  Value* value = use(from, type);
  const auto found = acquisitions_.find(pointer);
  if (found == acquisitions_.end()) {
    faults.push_back(log.back() + ": not acquired, or already released");
    return;
  }
  if (value != nullptr && found->second.value != value)
    faults.push_back(log.back() + ": acquired from another value");
  Value& owner = *found->second.value;
  const jbyte* copy = found->second.copy.get();
  if (!std::equal(owner.bytes.begin(), owner.bytes.end(), copy))
    faults.push_back(log.back() + ": changed meanwhile");
  std::copy_n(copy, owner.bytes.size(), owner.bytes.begin());
  acquisitions_.erase(found);
}
