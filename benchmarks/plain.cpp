// The implementations that the benchmark compares with the library, on the module that the library has bound.
// Plain C (`Silent`) makes the same module calls. Plain JNI (`Printing`) also makes the same JNI calls,
// prints the same traces and flushes them at the same points.

#include "Plain.h"

#include <dlfcn.h>
#include <p11-kit/pkcs11.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <type_traits>

namespace {

CK_FUNCTION_LIST* pkcs11 = nullptr;
CK_SLOT_ID slot = 0;
CK_SESSION_HANDLE session = 0;

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "failed: %s\n", what);
  std::exit(EXIT_FAILURE);
}

struct Silent {
  static void print(const char*, ...) {}
  static void flush() {}
};

struct Printing {
  [[gnu::format(printf, 1, 2)]] static void print(const char* format, ...) {
    va_list values;
    va_start(values, format);
    std::vprintf(format, values);
    va_end(values);
    hasUnflushed = true;
  }
  static void flush() {
    if (hasUnflushed) std::fflush(stdout);
    hasUnflushed = false;
  }
  static inline bool hasUnflushed = false;
};

template <class Output, class... Parameter>
unsigned call(CK_RV (*CK_FUNCTION_LIST::*function)(Parameter...),
              std::type_identity_t<Parameter>... arguments) {
  Output::flush();
  return static_cast<unsigned>((pkcs11->*function)(arguments...));
}

template <class Output, std::size_t N>
unsigned beginSearch(std::array<CK_ATTRIBUTE, N> wanted) {
  return call<Output>(&CK_FUNCTION_LIST::C_FindObjectsInit, session, wanted.data(), N);
}

template <class Output>
unsigned findNext(CK_OBJECT_HANDLE* object, CK_ULONG* count) {
  return call<Output>(&CK_FUNCTION_LIST::C_FindObjects, session, object, 1, count);
}

template <class Output>
unsigned endSearch() {
  return call<Output>(&CK_FUNCTION_LIST::C_FindObjectsFinal, session);
}

CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
CK_CERTIFICATE_TYPE x509 = CKC_X_509;
CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
const CK_ATTRIBUTE isPrivateKey = {CKA_CLASS, &privateKey, sizeof privateKey};
const CK_ATTRIBUTE isCertificate = {CKA_CERTIFICATE_TYPE, &x509, sizeof x509};

using Input = std::span<jbyte>;
/// The buffer for all values. It is reused, so that no allocation is measured.
std::array<CK_BYTE, 65536> buffer;

template <class Output>
unsigned signIntoBuffer(Input data, CK_ULONG* length) {
  *length = buffer.size();
  const unsigned result =
      call<Output>(&CK_FUNCTION_LIST::C_Sign, session, reinterpret_cast<CK_BYTE*>(data.data()), data.size(),
                   buffer.data(), length);
  require(result == CKR_OK, "C_Sign");
  return result;
}

/// Signs with the first private key. Returns the length of the signature, which is in `buffer`.
template <class Output>
CK_ULONG sign(Input data) {
  CK_OBJECT_HANDLE key = 0;
  CK_ULONG count = 0;
  beginSearch<Output>(std::array{isPrivateKey});
  findNext<Output>(&key, &count);
  endSearch<Output>();
  call<Output>(&CK_FUNCTION_LIST::C_SignInit, session, &mechanism, key);
  CK_ULONG length = 0;
  const unsigned result = signIntoBuffer<Output>(data, &length);
  Output::print("*** JNI *** C_Sign = %d\n", static_cast<int>(result));
  Output::print("*** JNI *** resultLen = %ld\n", static_cast<long>(length));
  return length;
}

template <class Output>
CK_OBJECT_HANDLE findKey(Input id) {
  CK_OBJECT_HANDLE key = 0;
  CK_ULONG count = 0;
  const CK_ATTRIBUTE hasId = {CKA_ID, id.data(), id.size()};
  Output::print("C_FindObjectsInit = 0x%x\n", beginSearch<Output>(std::array{isPrivateKey, hasId}));
  Output::print("C_FindObjects = 0x%x\n", findNext<Output>(&key, &count));
  Output::print("ObjectCount = %d\n", static_cast<int>(count));
  Output::print("C_FindObjectsFinal = 0x%x\n", endSearch<Output>());
  return key;
}

template <class Output>
CK_ULONG signWithKey(CK_OBJECT_HANDLE key, Input data) {
  Output::print("once result = 0x%x\n", static_cast<unsigned>(reinterpret_cast<CK_ULONG>(buffer.data())));
  Output::print("sonra result = 0x%x\n", static_cast<unsigned>(reinterpret_cast<CK_ULONG>(buffer.data())));
  Output::print("C_SignInit = 0x%x\n", call<Output>(&CK_FUNCTION_LIST::C_SignInit, session, &mechanism, key));
  CK_ULONG length = 0;
  Output::print("C_Sign = 0x%x\n", signIntoBuffer<Output>(data, &length));
  Output::print("resultLen = %d\n", static_cast<int>(length));
  return length;
}

template <class Output>
int countCertificates() {
  CK_OBJECT_HANDLE certificate = 0;
  CK_ULONG count = 1;
  int total = -1;
  Output::print("C_FindObjectsInit = 0x%x\n", beginSearch<Output>(std::array{isCertificate}));
  for (; count == 1; ++total) {
    const unsigned result = findNext<Output>(&certificate, &count);
    Output::print("C_FindObjects = 0x%x, 0x%d\n", result, static_cast<int>(count));
  }
  Output::print("C_FindObjectsFinal = 0x%x\n", endSearch<Output>());
  Output::print("TotalCertCount = %d\n", total);
  return total;
}

/// Reads the certificates. Calls `store` for each, with its number from 1 and its CKA_VALUE, CKA_ID and
/// CKA_LABEL.
template <class Output, class Store>
void readCertificates(int total, Store store) {
  CK_OBJECT_HANDLE certificate = 0;
  CK_ULONG count = 0;
  Output::print("C_FindObjectsInit (2) = 0x%x\n", beginSearch<Output>(std::array{isCertificate}));
  findNext<Output>(&certificate, &count);
  for (int k = 1; k <= total; ++k) {
    std::array<CK_ATTRIBUTE, 3> values = {
        {{CKA_VALUE, nullptr, 0}, {CKA_ID, nullptr, 0}, {CKA_LABEL, nullptr, 0}}};
    Output::print("C_GetAttributeValue1 = 0x%x\n",
                  call<Output>(&CK_FUNCTION_LIST::C_GetAttributeValue, session, certificate, values.data(),
                               values.size()));
    CK_BYTE* end = buffer.data();
    for (CK_ATTRIBUTE& value : values) {
      value.pValue = end;
      end += value.ulValueLen;
    }
    const unsigned result = call<Output>(&CK_FUNCTION_LIST::C_GetAttributeValue, session, certificate,
                                         values.data(), values.size());
    require(result == CKR_OK, "C_GetAttributeValue");
    Output::print("C_GetAttributeValue2 = 0x%x\n", result);
    Output::print("Cert size %d = %d\n", k, static_cast<int>(values[0].ulValueLen));
    Output::print("ID size %d = %d\n", k, static_cast<int>(values[1].ulValueLen));
    Output::print("Label size %d = %d\n", k, static_cast<int>(values[2].ulValueLen));
    store(k, values);
    Output::print("C_FindObjects = 0x%x\n", findNext<Output>(&certificate, &count));
    Output::print("RemainCount = %d\n", static_cast<int>(count));
  }
  Output::print("C_FindObjectsFinal = 0x%x\n", endSearch<Output>());
}

template <class Output>
jlong readSlotFlags() {
  CK_SLOT_INFO information;
  require(call<Output>(&CK_FUNCTION_LIST::C_GetSlotInfo, slot, &information) == CKR_OK, "C_GetSlotInfo");
  return static_cast<jint>(information.flags);
}

Input elements(JNIEnv* env, jbyteArray array) {
  return {env->GetByteArrayElements(array, nullptr), static_cast<std::size_t>(env->GetArrayLength(array))};
}

jbyteArray byteArray(JNIEnv* env, const void* bytes, CK_ULONG length) {
  jbyteArray array = env->NewByteArray(static_cast<jsize>(length));
  env->SetByteArrayRegion(array, 0, static_cast<jsize>(length), static_cast<const jbyte*>(bytes));
  return array;
}

}  // namespace

JNIEXPORT void JNICALL Java_Plain_bind(JNIEnv* env, jclass, jstring jModule) {
  const char* module = env->GetStringUTFChars(jModule, nullptr);
  const auto getFunctionList =
      reinterpret_cast<CK_C_GetFunctionList>(dlsym(dlopen(module, RTLD_NOW), "C_GetFunctionList"));
  env->ReleaseStringUTFChars(jModule, module);
  require(getFunctionList(&pkcs11) == CKR_OK, "C_GetFunctionList");
  std::array<CK_SLOT_ID, 16> slots = {};
  CK_ULONG count = slots.size();
  require(pkcs11->C_GetSlotList(CK_FALSE, slots.data(), &count) == CKR_OK, "C_GetSlotList");
  slot = slots.front();
  constexpr CK_FLAGS flags = CKF_SERIAL_SESSION | CKF_RW_SESSION;
  require(pkcs11->C_OpenSession(slot, flags, nullptr, nullptr, &session) == CKR_OK, "C_OpenSession");
}

JNIEXPORT void JNICALL Java_Plain_repeatInC(JNIEnv*, jclass, jint operation, jlong times) {
  std::array<jbyte, 51> data = {};  // as long as the data for the JNI functions
  std::array<jbyte, 5> id = {};
  for (; times > 0; --times) {
    switch (operation) {
      case Plain_SIGN:
        sign<Silent>(data);
        break;
      case Plain_SIGN_WITH_ID:
        signWithKey<Silent>(findKey<Silent>(id), data);
        break;
      case Plain_LIST:
        readCertificates<Silent>(countCertificates<Silent>(), [](int, const auto&) {});
        break;
      default:
        readSlotFlags<Silent>();
    }
  }
}

JNIEXPORT jbyteArray JNICALL Java_Plain_sign(JNIEnv* env, jclass, jlong, jbyteArray jData) {
  const Input data = elements(env, jData);
  env->NewByteArray(1);
  const CK_ULONG length = sign<Printing>(data);
  env->ReleaseByteArrayElements(jData, data.data(), 0);
  Printing::print("*** JNI ***  dataTemp released\n");
  const jbyteArray result = byteArray(env, buffer.data(), length);
  Printing::print("*** JNI ***  Result set to environment\n");
  Printing::print("*** JNI ***  data deleted\n");
  Printing::flush();
  return result;
}

JNIEXPORT jbyteArray JNICALL Java_Plain_signWithID(JNIEnv* env, jclass, jlong, jbyteArray jData,
                                                   jbyteArray jId) {
  Printing::print("Query ID Len = %d\n", env->GetArrayLength(jId));
  const Input id = elements(env, jId);
  const Input data = elements(env, jData);
  env->NewByteArray(1);
  const CK_OBJECT_HANDLE key = findKey<Printing>(id);
  env->ReleaseByteArrayElements(jId, id.data(), 0);
  const CK_ULONG length = signWithKey<Printing>(key, data);
  env->ReleaseByteArrayElements(jData, data.data(), 0);
  const jbyteArray result = byteArray(env, buffer.data(), length);
  Printing::flush();
  return result;
}

JNIEXPORT jobjectArray JNICALL Java_Plain_readAllCertificates(JNIEnv* env, jclass, jlong slotIndex) {
  jbyteArray status = env->NewByteArray(1);
  Printing::print("slotIndex = %d", static_cast<int>(slotIndex));
  const int total = countCertificates<Printing>();
  jobjectArray list = env->NewObjectArray(3 * total + 1, env->GetObjectClass(status), nullptr);
  const jbyte success = 0;
  env->SetByteArrayRegion(status, 0, 1, &success);
  env->SetObjectArrayElement(list, 0, status);
  const bool large = 3 * total + 1 > 16;  // JNI guarantees 16 local references
  readCertificates<Printing>(total, [&](int k, const std::array<CK_ATTRIBUTE, 3>& values) {
    std::array<jbyteArray, 3> arrays;
    for (std::size_t i = 0; i < 3; ++i) arrays[i] = byteArray(env, values[i].pValue, values[i].ulValueLen);
    jsize index = 3 * k - 2;
    for (jbyteArray array : {arrays[1], arrays[2], arrays[0]}) {
      env->SetObjectArrayElement(list, index++, array);
      if (large) env->DeleteLocalRef(array);
    }
  });
  Printing::flush();
  return list;
}

JNIEXPORT jlong JNICALL Java_Plain_getSlotInfo(JNIEnv*, jclass, jlong) { return readSlotFlags<Printing>(); }
