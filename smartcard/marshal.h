#pragma once

#include <jni.h>
#include <p11-kit/pkcs11.h>

#include <limits>
#include <span>

#include "memory.h"

/// The length of the longest Java array. A greater length from a module is never used.
inline constexpr CK_ULONG kLongestArray = std::numeric_limits<jsize>::max();

/// Thrown when a JNI function returned null. The JVM's OutOfMemoryError may be pending: HotSpot throws it
/// from the New functions, but not from GetByteArrayElements and GetStringUTFChars. Afterwards only JNI's
/// Release functions may be called.
struct JavaOutOfMemory {};

/// Whether any of these Java references is null. Call it before passing them to JNI, whose functions do not
/// accept null.
template <class... Reference>
bool anyNull(Reference... references) {
  return (... || (references == nullptr));
}

/// The characters of a Java string in modified UTF-8, NUL-terminated. The destructor releases them. They are
/// never copied, because they may be a PIN.
class StringInput {
 public:
  StringInput(JNIEnv* env, jstring string);
  StringInput(const StringInput&) = delete;
  StringInput& operator=(const StringInput&) = delete;
  ~StringInput() { env_->ReleaseStringUTFChars(string_, characters_); }

  const char* characters() const { return characters_; }
  CK_ULONG length() const;

  /// The characters in PKCS#11's type for a PIN. The type is not const, although a PIN is only an input.
  CK_UTF8CHAR_PTR pin() const;

  /// Whether the string has at least `length` bytes. False for a negative length.
  bool hasAtLeast(jlong length) const { return static_cast<CK_ULONG>(length) <= this->length(); }

 private:
  JNIEnv* env_;
  jstring string_;
  const char* characters_;
};

/// A Java byte array and a private copy of it for the module, which never gets the JVM's own memory. The
/// constructor gets the length; take() gets the elements and copies them. The destructor calls release() and
/// discard(); entry points call them earlier where the order matters.
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
  void release();  // the elements
  void discard();  // wipes and frees the copy, which may be a key component

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

// Call take(), release() or discard() of each input, in the order of the arguments.

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

// New Java arrays with these elements.

jbyteArray byteArray(JNIEnv* env, std::span<const CK_BYTE> bytes);
jintArray intArray(JNIEnv* env, std::span<const jint> numbers);

/// The low 32 bits, as a Java int.
constexpr jint low32(CK_ULONG value) { return static_cast<jint>(value); }

/// The status of a call: a byte[1] with the low 8 bits of a code.
class StatusArray {
 public:
  explicit StatusArray(JNIEnv* env);

  /// Stores the low 8 bits of the code and returns the array.
  jbyteArray set(CK_RV code) const;
  jbyteArray array() const { return array_; }

 private:
  JNIEnv* env_;
  jbyteArray array_;
};

/// A byte[][] under construction. Element 0 is the status array, whose class is the element class.
class ListResult {
 public:
  ListResult(JNIEnv* env, jbyteArray status, jsize length);

  void setStatus(jbyteArray status) { env_->SetObjectArrayElement(array_, 0, status); }

  /// Stores a new array. In a large list, also deletes the array's local reference, because JNI guarantees
  /// only 16. Four of the 16 are kept for this list, its class, and the list and class of a later
  /// statusOnly().
  void store(jsize index, jbyteArray element);

  jobjectArray array() const { return array_; }

 private:
  JNIEnv* env_;
  jobjectArray array_;
  bool isLarge_;
};

/// A byte[][] with the status array as its only element.
jobjectArray statusOnly(JNIEnv* env, jbyteArray status);

// For the catch (...) of an entry point. These functions return null for JavaOutOfMemory. Otherwise they
// return CKR_HOST_MEMORY as a status, an empty int[], or a list with only the status CKR_HOST_MEMORY.

jbyteArray outOfMemoryStatus(JNIEnv* env);
jintArray outOfMemoryNumbers(JNIEnv* env);
jobjectArray outOfMemoryList(JNIEnv* env);
