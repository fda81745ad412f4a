// A JNIEnv without a JVM. Its table has only the thirteen functions that the library uses; all others are
// null. Each breach of JNI's rules is recorded as a violation, even if a JVM would accept it.
#pragma once

#include <jni.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

class FakeJni : JNIEnv {
 public:
  FakeJni();
  JNIEnv* env() { return this; }

  // Create Java values to pass in; `name` is their name in the log. Strings are in modified UTF-8.
  jbyteArray bytes(const std::string& name, const std::string& elements) {
    return static_cast<jbyteArray>(add(name, kOfTest, Array<jbyte>(elements.begin(), elements.end())));
  }
  jstring string(const std::string& name, const std::string& characters) {
    const char* const first = characters.c_str();
    return static_cast<jstring>(add(name, kOfTest, Array<char>(first, first + characters.size() + 1)));
  }

  /// A result as text: `5`, `[16909060]`, `{01 02}`, `{{00} {41} null}` or `null`.
  std::string format(jlong number) const { return std::to_string(number); }
  std::string format(jobject reference) const;

  std::vector<std::string> log;         // every call in order: `GetArrayLength(label)`, `NewByteArray(1)`
  std::vector<std::string> violations;  // the rules of JNI that the library broke
  std::function<void(const std::string& line)> onCall;  // runs at each call, after it is logged

  /// Whether all acquired elements and strings have been released.
  bool hasReleasedAll() const { return acquired_.empty(); }

  /// Makes the nth allocation from now return null, counted from 1. Allocations are the New*Array functions,
  /// which then leave an OutOfMemoryError pending, and GetByteArrayElements and GetStringUTFChars, which do
  /// not.
  void refuse(std::size_t nth) { refuseAt_ = allocations_ + nth; }
  std::size_t allocations() const { return allocations_; }

  /// Ends a native call: drops its local references, the pending error and all records. The test can still
  /// pass the values that it created, and format the results.
  void clear();

 private:
  enum State { kOfTest, kLocal, kDeleted };
  template <class Element>
  using Array = std::vector<Element>;
  // A string's content includes its NUL; a class has no content.
  using Content = std::variant<Array<jclass>, Array<char>, Array<jbyte>, Array<jint>, Array<jobject>>;
  struct Value {
    std::string name;
    State state;
    Content content;
  };

  /// Defines a function that logs its call and runs the body. It returns null after a violation or a refused
  /// allocation. The body is a lambda without captures, so its type is enough to create it.
  template <class Result, class... Argument, class Body>
  static void define(Result (*&function)(JNIEnv*, Argument...), const char* functionName, Body) {
    static const char* name;
    name = functionName;
    function = [](JNIEnv* env, Argument... arguments) {
      FakeJni& jni = *static_cast<FakeJni*>(env);
      try {
        jni.enter(name, {jni.text(arguments)...});
        return static_cast<Result>(Body{}(jni, arguments...));
      } catch (const char* violation) {
        if (violation != nullptr) jni.violations.push_back(jni.log.back() + ": " + violation);
        return Result();
      }
    };
  }
  void enter(const std::string& name, const std::vector<std::string>& arguments) {
    std::string line = name + '(';
    for (const auto& text : arguments) line += (text.empty() || line.back() == '(' ? "" : ", ") + text;
    log.push_back(line + ')');
    if (onCall) onCall(log.back());
    const bool isRelease = name.starts_with("Release") || name.starts_with("Delete");
    require(!hasError_ || isRelease, "called while an error is pending");
  }
  // An argument in the log: a reference's name or a number. Null references and other pointers are left out.
  std::string text(jint number) const { return std::to_string(number); }
  std::string text(const void*) const { return ""; }
  std::string text(jobject reference) const {
    return values_.contains(reference) ? values_.at(reference).name : reference == nullptr ? "" : "foreign";
  }

  static void require(bool holds, const char* violation) {
    if (!holds) throw violation;
  }
  bool isRefused() { return ++allocations_ == refuseAt_; }
  /// A reference is not a valid address, so dereferencing it crashes.
  jobject add(const std::string& name, State state, Content content) {
    require(state != kLocal || ++locals_ <= 16, "more local references than JNI guarantees");
    const auto reference = reinterpret_cast<jobject>((values_.size() + 1) * 0x10);
    values_[reference] = {name, state, std::move(content)};
    return reference;
  }

  template <class Element>
  Array<Element>& use(jobject reference) {
    require(values_.contains(reference), "a null or foreign reference");
    Value& value = values_[reference];
    require(value.state != kDeleted, "a deleted local reference");
    require(std::holds_alternative<Array<Element>>(value.content), "a reference of another type");
    return std::get<Array<Element>>(value.content);
  }
  template <class Element>
  jobject create(const std::string& before, jsize length, const std::string& after) {
    require(length >= 0, "a negative length");
    const bool isTooLong = length > 1 << 26;  // treated as more than the heap holds
    hasError_ = isRefused() || isTooLong;
    require(!hasError_, nullptr);
    return add(before + text(length) + after, kLocal, Array<Element>(static_cast<std::size_t>(length)));
  }
  template <class Element>
  void setRegion(jobject array, jsize start, jsize count, const Element* source) {
    auto& content = use<Element>(array);
    const auto left = static_cast<std::int64_t>(content.size()) - start;
    require(start >= 0 && count >= 0 && count <= left, "outside the array");
    require(source != nullptr || count == 0, "from a null pointer");
    std::copy_n(source, count, content.begin() + start);
  }
  template <class Element>
  Element* acquire(jobject from, const jboolean* isCopy) {
    require(isCopy == nullptr, "isCopy is not null");
    const auto& content = use<Element>(from);
    require(!isRefused(), nullptr);
    std::shared_ptr<Element[]> copy(new Element[content.size()]);
    std::copy(content.begin(), content.end(), copy.get());
    acquired_[copy.get()] = {&content, copy};
    return copy.get();
  }
  template <class Element>
  void release(jobject from, const Element* pointer) {
    const auto& content = use<Element>(from);
    require(acquired_.contains(pointer), "not acquired, or already released");
    require(acquired_[pointer].first == &content, "acquired from another value");
    require(std::equal(content.begin(), content.end(), pointer), "the elements were changed");
    acquired_.erase(pointer);
  }

  JNINativeInterface_ table_;
  std::map<jobject, Value> values_;
  // By address: the content and a copy of exactly its size, so that a sanitizer finds any access beyond it.
  std::map<const void*, std::pair<const void*, std::shared_ptr<void>>> acquired_;
  bool hasError_ = false;  // pending
  int locals_ = 0;         // local references not deleted
  std::size_t allocations_ = 0;
  std::size_t refuseAt_ = 0;
};
