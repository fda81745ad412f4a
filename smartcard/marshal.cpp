#include "marshal.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr jsize kGuaranteedLocalReferences = 16;

/// Returns the result of a JNI function. Throws JavaOutOfMemory if it is null.
template <class T>
T requireNonNull(T result) {
  if (result == nullptr) throw JavaOutOfMemory();
  return result;
}

/// Whether the exception being handled is JavaOutOfMemory. May be called only in a catch block.
bool isJavaOutOfMemory() {
  try {
    throw;
  } catch (const JavaOutOfMemory&) {
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace

StringInput::StringInput(JNIEnv* env, jstring string)
    : env_(env), string_(string), characters_(requireNonNull(env->GetStringUTFChars(string, nullptr))) {}

CK_ULONG StringInput::length() const { return std::strlen(characters_); }

CK_UTF8CHAR_PTR StringInput::pin() const {
  return reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(characters_));
}

void ByteInput::take() {
  elements_ = requireNonNull(env_->GetByteArrayElements(array_, nullptr));
  copy_ = zeroed<CK_BYTE>(size());
  std::copy_n(elements_, length_, copy_.get());
}

void ByteInput::release() {
  if (elements_ != nullptr) env_->ReleaseByteArrayElements(array_, elements_, 0);
  elements_ = nullptr;
}

void ByteInput::discard() {
  if (copy_ != nullptr) wipe(copy_.get(), size());
  copy_ = nullptr;
}

jbyteArray byteArray(JNIEnv* env, std::span<const CK_BYTE> bytes) {
  const auto length = static_cast<jsize>(bytes.size());
  const jbyteArray array = requireNonNull(env->NewByteArray(length));
  env->SetByteArrayRegion(array, 0, length, reinterpret_cast<const jbyte*>(bytes.data()));
  return array;
}

jintArray intArray(JNIEnv* env, std::span<const jint> numbers) {
  const auto length = static_cast<jsize>(numbers.size());
  const jintArray array = requireNonNull(env->NewIntArray(length));
  env->SetIntArrayRegion(array, 0, length, numbers.data());
  return array;
}

StatusArray::StatusArray(JNIEnv* env) : env_(env), array_(requireNonNull(env->NewByteArray(1))) {}

jbyteArray StatusArray::set(CK_RV code) const {
  const auto low8 = static_cast<jbyte>(code);
  env_->SetByteArrayRegion(array_, 0, 1, &low8);
  return array_;
}

ListResult::ListResult(JNIEnv* env, jbyteArray status, jsize length)
    : env_(env),
      array_(requireNonNull(env->NewObjectArray(length, env->GetObjectClass(status), nullptr))),
      isLarge_(length > kGuaranteedLocalReferences - 4) {}

void ListResult::store(jsize index, jbyteArray element) {
  env_->SetObjectArrayElement(array_, index, element);
  if (isLarge_) env_->DeleteLocalRef(element);
}

jobjectArray statusOnly(JNIEnv* env, jbyteArray status) {
  ListResult list(env, status, 1);
  list.setStatus(status);
  return list.array();
}

jbyteArray outOfMemoryStatus(JNIEnv* env) try {
  return isJavaOutOfMemory() ? nullptr : StatusArray(env).set(CKR_HOST_MEMORY);
} catch (...) {
  return nullptr;
}

jintArray outOfMemoryNumbers(JNIEnv* env) try {
  return isJavaOutOfMemory() ? nullptr : intArray(env, {});
} catch (...) {
  return nullptr;
}

jobjectArray outOfMemoryList(JNIEnv* env) try {
  return isJavaOutOfMemory() ? nullptr : statusOnly(env, StatusArray(env).set(CKR_HOST_MEMORY));
} catch (...) {
  return nullptr;
}
