// A JNIEnv without a virtual machine. Its table holds only the twelve functions that the library uses and
// DeleteLocalRef; any other prints its name and aborts. What a real virtual machine would let pass, or crash
// on, is written down as a fault.
#pragma once

#include <jni.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

class FakeJni {
 public:
  FakeJni();
  FakeJni(const FakeJni&) = delete;
  FakeJni& operator=(const FakeJni&) = delete;

  JNIEnv* env() { return &env_; }

  // Java values to pass in; `name` is how the log calls them. A string is given in modified UTF-8.
  jbyteArray bytes(std::string name, std::vector<std::uint8_t> elements);
  jstring string(std::string name, std::string characters);

  // What came back. A reference that is null or of another type throws std::invalid_argument.
  std::vector<std::uint8_t> bytesOf(jobject array) const;
  std::vector<std::int32_t> intsOf(jobject array) const;
  std::vector<jobject> elementsOf(jobject array);  // null where the array holds null

  std::vector<std::string> log;  // every call in order: `GetArrayLength(label)`, `NewByteArray(1)`
  std::function<void(const std::string&)> onCall;
  void record(const std::string& call) {
    log.push_back(call);
    if (onCall) onCall(call);
  }
  std::vector<std::string> faults;  // empty, unless the library broke a rule of JNI

  /// Whether everything acquired has been released.
  bool balanced() const { return acquisitions_.empty(); }

  /// The nth allocation from now, the next one being 1, answers null and leaves an OutOfMemoryError pending.
  /// Allocations are the New*Array, GetByteArrayElements and GetStringUTFChars.
  void refuse(std::size_t nth) { refuseAt_ = allocations_ + nth; }
  std::size_t allocations() const { return allocations_; }
  const std::string& pendingException() const { return pending_; }  // its class, or empty

  /// The most local references that one call held at a time; the virtual machine guarantees room for 16.
  std::size_t mostLocalReferences() const { return mostLocal_; }

  /// Back in Java: the call's local references and the exception are gone, and the records begin anew. Values
  /// passed in and results can still be used by the test.
  void clear();

 private:
  enum class Type { kString, kBytes, kInts, kObjects, kByteArrayClass };
  enum class Origin { kTest, kCall, kDeleted };
  struct Value {
    std::string name;
    Type type;
    std::vector<std::int8_t> bytes;  // of a string: its characters and the NUL
    std::vector<jint> ints;
    std::vector<Value*> elements;
  };
  struct Reference {
    Value* value;
    Origin origin;
  };
  struct Acquisition {
    Value* value;
    std::unique_ptr<jbyte[]> copy;  // of exactly the value's size, so that a sanitizer sees any step beyond
  };
  struct Env : JNIEnv {
    FakeJni* owner;
  };

  static FakeJni& of(JNIEnv* env) { return *static_cast<Env*>(env)->owner; }
  static JNINativeInterface_ table();

  Value* add(std::string name, Type type);
  jobject refer(Value* value, Origin origin);
  const Value& result(jobject reference, Type type) const;

  std::string nameOf(jobject reference) const;
  void enter(const std::string& call);
  Value* use(jobject reference, Type type);
  bool refused();
  jobject create(std::string name, Type type, jsize length);
  template <class Element>
  void setRegion(jobject array, Type type, std::vector<Element> Value::*elements, jsize start, jsize count,
                 const Element* source);
  jbyte* acquire(jobject from, Type type);
  void release(jobject from, Type type, const void* pointer);

  Env env_;
  JNINativeInterface_ functions_;
  std::deque<Value> values_;
  std::map<jobject, Reference> references_;
  std::map<const void*, Acquisition> acquisitions_;
  std::string pending_;
  std::size_t allocations_ = 0;
  std::size_t refuseAt_ = 0;
  std::size_t local_ = 0;
  std::size_t mostLocal_ = 0;
};
