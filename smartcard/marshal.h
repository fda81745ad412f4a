#pragma once

#include <jni.h>
#include <p11-kit/pkcs11.h>

#include <limits>
#include <span>

#include "memory.h"

/// The longest array that Java has. No length beyond it is believed.
inline constexpr CK_ULONG kLongestArray = std::numeric_limits<jsize>::max();

/// Thrown when the virtual machine answered null: its own OutOfMemoryError may be pending then (HotSpot's is
/// when it cannot make an array, not when it cannot lend one out), and no more may be asked of it but to take
/// back what it gave.
struct JavaOutOfMemory {};

/// Whether one of these Java references is null. Asked before anything is taken: JNI defines no answer for
/// one.
template <class... Reference>
bool anyNull(Reference... references) {
  return (... || (references == nullptr));
}

/// A Java string's modified UTF-8 characters, NUL-terminated, until the scope is left. They are never copied:
/// they may be a PIN.
class StringInput {
 public:
  StringInput(JNIEnv* env, jstring string);
  StringInput(const StringInput&) = delete;
  StringInput& operator=(const StringInput&) = delete;
  ~StringInput() { env_->ReleaseStringUTFChars(string_, characters_); }

  const char* characters() const { return characters_; }
  CK_ULONG length() const;

  /// The characters as the module takes a PIN. It does not write to them.
  CK_UTF8CHAR_PTR pin() const;

  /// Whether this many bytes can be read. A negative length is no length.
  bool holds(jlong length) const { return static_cast<CK_ULONG>(length) <= this->length(); }

 private:
  JNIEnv* env_;
  jstring string_;
  const char* characters_;
};

/// A Java byte array and the private copy of it that the module works on: the module never sees the virtual
/// machine's own memory. The length is taken at once, the elements and the copy by take(); both are given
/// back at the end of the scope, or earlier where the order matters. The copy may be a key component: it is
/// wiped before it is freed.
class ByteInput {
 public:
  ByteInput(JNIEnv* env, jbyteArray array) : env_(env), array_(array), length_(env->GetArrayLength(array)) {}
  ByteInput(const ByteInput&) = delete;
  ByteInput& operator=(const ByteInput&) = delete;
  ~ByteInput() {
    release();
    discard();
  }

  void take();
  void release();
  void discard();

  jsize length() const { return length_; }
  CK_ULONG size() const { return static_cast<CK_ULONG>(length_); }
  CK_BYTE_PTR data() const { return copy_.get(); }

 private:
  JNIEnv* env_;
  jbyteArray array_;
  jsize length_;
  jbyte* elements_ = nullptr;
  Buffer<CK_BYTE> copy_;
};

/// Inputs taken, their elements given back, their copies wiped and freed, in the order written.
template <class... Input>
void takeAll(Input&... inputs) {
  (..., inputs.take());
}
template <class... Input>
void releaseAll(Input&... inputs) {
  (..., inputs.release());
}
template <class... Input>
void discardAll(Input&... inputs) {
  (..., inputs.discard());
}

/// A new byte[] of these bytes.
jbyteArray byteArray(JNIEnv* env, std::span<const CK_BYTE> bytes);

/// A new int[] of these numbers.
jintArray intArray(JNIEnv* env, std::span<const jint> numbers);

/// The low 32 bits, as an int[] holds them.
constexpr jint low32(CK_ULONG value) { return static_cast<jint>(value); }

/// A byte[1] that tells how a call went: it holds the low 8 bits of a code.
class StatusArray {
 public:
  explicit StatusArray(JNIEnv* env);

  jbyteArray holding(CK_RV code) const;
  jbyteArray array() const { return array_; }

 private:
  JNIEnv* env_;
  jbyteArray array_;
};

/// A byte[][] under construction. Element 0 is the status array, which also lends its class.
class ListResult {
 public:
  ListResult(JNIEnv* env, jbyteArray status, jsize length);

  void setStatus(jbyteArray status) { env_->SetObjectArrayElement(array_, 0, status); }

  /// Places a new array and, in a large result, gives up its local reference: JNI promises room for 16, the
  /// elements' with the status array's, this list's and its class's, and once more a list's and a class's
  /// where a failure is told by the status alone.
  void store(jsize index, jbyteArray element);

  jobjectArray array() const { return array_; }

 private:
  JNIEnv* env_;
  jobjectArray array_;
  bool large_;
};

/// A byte[][] that holds only the status array.
jobjectArray statusOnly(JNIEnv* env, jbyteArray status);

// What an entry point returns when an exception ended it, to be called in its handler: null when it was the
// virtual machine that had no memory, else CKR_HOST_MEMORY in the entry point's own form.

jbyteArray outOfMemoryStatus(JNIEnv* env);
jintArray outOfMemoryNumbers(JNIEnv* env);
jobjectArray outOfMemoryList(JNIEnv* env);
