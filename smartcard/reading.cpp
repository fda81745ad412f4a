#include <algorithm>
#include <array>
#include <limits>

#include "com_calvenhor_vork_utils_Smartcard.h"
#include "marshal.h"
#include "module.h"
#include "search.h"
#include "templates.h"

namespace {

constexpr jlong kCountFailed = -1;
constexpr std::size_t kMaxCounted = 20;

// The statuses of failures, for the functions that read a single value.
constexpr CK_RV kNoObject = 0;
constexpr CK_RV kValueUnreadable = 1;
constexpr CK_RV kNoneReported = 2;  // or a false count

/// The value of the first object found, or a status. Unlike readIdOrLabel(), tests the module's count first.
jbyteArray readValue(JNIEnv* env, jlong slotIndex, CK_ATTRIBUTE kind) {
  const Session session = sessionAt(slotIndex);
  const StatusArray status(env);

  Search search(session, std::array{kind});
  search.next();
  if (search.count() != 1) return status.set(kNoneReported);
  if (!search.found()) return status.set(kNoObject);

  AttributeRead<1> value(session, search.object(), {CKA_VALUE});
  value.readLengths();
  if (value.readValues() != CKR_OK) return status.set(kValueUnreadable);
  return byteArray(env, value[0]);
}

enum class OnFailure { kSilent, kTraced };

/// The ID or the label of the first object found.
jbyteArray readIdOrLabel(JNIEnv* env, jlong slotIndex, CK_ATTRIBUTE kind, CK_ATTRIBUTE_TYPE type,
                         OnFailure onFailure = OnFailure::kSilent) {
  const Session session = sessionAt(slotIndex);
  const StatusArray status(env);

  Search search(session, std::array{kind});
  search.next();
  if (!search.found()) {
    search.end();
    return status.set(kNoObject);
  }

  AttributeRead<1> attribute(session, search.object(), {type});
  attribute.readLengths();
  if (attribute.readValues() != CKR_OK) {
    const jbyteArray failure = status.set(kValueUnreadable);
    if (onFailure == OnFailure::kTraced) trace("2 %d\n", dec32(rv));
    return failure;
  }
  return byteArray(env, attribute[0]);
}

/// One attribute of a listed object: its name in the size traces, and its position in the object's group of
/// result elements, counted from 1.
struct Column {
  CK_ATTRIBUTE_TYPE type;
  const char* name;
  std::size_t position;
};

// In the order in which they are read from the module.
constexpr std::array<Column, 3> kCertificate = {
    {{CKA_VALUE, "Cert", 3}, {CKA_ID, "ID", 1}, {CKA_LABEL, "Label", 2}}};
constexpr std::array<Column, 4> kPublicKey = {{{CKA_MODULUS, "Modulus", 3},
                                               {CKA_PUBLIC_EXPONENT, "PubExp", 4},
                                               {CKA_ID, "ID", 1},
                                               {CKA_LABEL, "Label", 2}}};
constexpr std::array<Column, 2> kPrivateKey = {{{CKA_ID, "ID", 1}, {CKA_LABEL, "Label", 2}}};

template <std::size_t N>
std::array<CK_ATTRIBUTE_TYPE, N> typesOf(const std::array<Column, N>& columns) {
  std::array<CK_ATTRIBUTE_TYPE, N> types = {};
  std::transform(columns.begin(), columns.end(), types.begin(),
                 [](const Column& column) { return column.type; });
  return types;
}

/// The length of a result: the status array and `count` groups of N elements.
template <std::size_t N>
jsize listLength(CK_ULONG count) {
  constexpr CK_ULONG maxCount = (std::numeric_limits<jsize>::max() - 1) / N;
  if (count > maxCount) throw std::bad_alloc();
  return static_cast<jsize>(N * count + 1);
}

/// Ends a failed search and returns the status alone, with the code of the failure.
jobjectArray abandonSearch(JNIEnv* env, const StatusArray& status, Search<>& search) {
  status.set(rv);
  search.end();
  return statusOnly(env, status.array());
}

/// Traces the sizes of the k-th object's values, counted from 1, and stores the values in the result.
template <std::size_t N>
void storeGroup(JNIEnv* env, ListResult& list, CK_ULONG k, const std::array<Column, N>& columns,
                const AttributeRead<N>& values) {
  for (std::size_t i = 0; i < N; ++i) {
    trace("%s size %d = %d\n", columns[i].name, dec32(k), dec32(values[i].size()));
  }
  std::array<jbyteArray, N> group = {};
  for (std::size_t i = 0; i < N; ++i) group[columns[i].position - 1] = byteArray(env, values[i]);
  const auto first = static_cast<jsize>(N * (k - 1) + 1);
  for (std::size_t i = 0; i < N; ++i) list.store(first + static_cast<jsize>(i), group[i]);
}

/// Lists the RSA keys of one class. A first search counts them, because the array needs its size; a second
/// search reads them.
template <CK_OBJECT_CLASS Class, std::size_t N>
jobjectArray listRsaKeys(JNIEnv* env, jlong slotIndex, const char* className,
                         const std::array<Column, N>& columns) {
  const Session session = sessionAt(slotIndex);
  const StatusArray status(env);

  Search counting(session, rsaKeySearch<Class>());
  if (!counting.hasBegun()) return statusOnly(env, status.set(rv));
  CK_ULONG keyCount = 0;
  for (;; ++keyCount) {
    if (counting.next() != CKR_OK) return abandonSearch(env, status, counting);
    if (!counting.found()) break;
  }
  if (counting.end() != CKR_OK) return statusOnly(env, status.set(rv));
  trace("Total%sKeyCount = %d\n", className, dec32(keyCount));

  ListResult list(env, status.array(), listLength<N>(keyCount));
  list.setStatus(status.set(0));
  const auto fail = [&](CK_RV code) {
    status.set(code);
    return list.array();
  };
  if (keyCount == 0) return list.array();

  Search search(session, rsaKeySearch<Class>());
  if (!search.hasBegun()) return fail(rv);
  if (search.next() != CKR_OK) return fail(rv);
  for (CK_ULONG k = 1; k <= keyCount; ++k) {
    if (!search.found()) return fail(CKR_GENERAL_ERROR);  // fewer than were counted
    AttributeRead values(session, search.object(), typesOf(columns));
    if (values.readLengths() != CKR_OK) return fail(rv);
    if (const CK_RV result = values.readValues(); result != CKR_OK) return fail(result);
    storeGroup(env, list, k, columns, values);
    if (search.next() != CKR_OK) return fail(rv);
  }
  search.end();
  trace("C_FindObjectsFinal = 0x%x\n", hex32(rv));
  return list.array();
}

}  // namespace

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_isCardEmptyDLL(JNIEnv*, jclass,
                                                                               jlong slotIndex) {
  if (!hasSession(slotIndex)) return kBadSlotIndex;

  Search search(sessionAt(slotIndex));
  search.next();
  if (search.end() != CKR_OK) return kCountFailed;
  return asJava(std::min<CK_ULONG>(search.count(), 1));
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_getObjectCountInTheTokenDLL(JNIEnv*, jclass,
                                                                                            jlong slotIndex) {
  if (!hasSession(slotIndex)) return kBadSlotIndex;

  Search<kMaxCounted> search(sessionAt(slotIndex));
  search.next();
  search.end();
  return asJava(std::min<CK_ULONG>(search.count(), kMaxCounted));
}

JNIEXPORT jbyteArray JNICALL Java_com_calvenhor_vork_utils_Smartcard_readCertificateDLL(JNIEnv* env, jclass,
                                                                                        jlong slotIndex) try {
  return readValue(env, slotIndex, x509());
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jbyteArray JNICALL Java_com_calvenhor_vork_utils_Smartcard_readAttributeCertificateDLL(
    JNIEnv* env, jclass, jlong slotIndex) try {
  return readValue(env, slotIndex, objectClass<CKO_DATA>());
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jobjectArray JNICALL
Java_com_calvenhor_vork_utils_Smartcard_readAllCertificatesDLL(JNIEnv* env, jclass, jlong slotIndex) try {
  const TracedCall traced;
  const Session session = sessionAt(slotIndex);
  const StatusArray status(env);
  trace("slotIndex = %d", dec32(static_cast<CK_ULONG>(slotIndex)));

  Search counting(session, std::array{x509()});
  trace("C_FindObjectsInit = 0x%x\n", hex32(rv));
  if (!counting.hasBegun()) return statusOnly(env, status.set(rv));
  CK_ULONG certificateCount = 0;
  for (;; ++certificateCount) {
    counting.next();
    trace("C_FindObjects = 0x%x, 0x%d\n", hex32(rv), dec32(counting.count()));
    if (rv != CKR_OK) return abandonSearch(env, status, counting);
    if (!counting.found()) break;
  }
  counting.end();
  trace("C_FindObjectsFinal = 0x%x\n", hex32(rv));
  trace("TotalCertCount = %d\n", dec32(certificateCount));

  ListResult list(env, status.array(), listLength<kCertificate.size()>(certificateCount));
  list.setStatus(status.set(0));
  const auto fail = [&](CK_RV code) {
    status.set(code);
    return list.array();
  };
  if (certificateCount == 0) return list.array();

  Search search(session, std::array{x509()});
  trace("C_FindObjectsInit (2) = 0x%x\n", hex32(rv));
  if (search.next() != CKR_OK) return abandonSearch(env, status, search);
  for (CK_ULONG k = 1; k <= certificateCount; ++k) {
    if (!search.found()) return fail(CKR_GENERAL_ERROR);  // fewer than were counted
    AttributeRead values(session, search.object(), typesOf(kCertificate));
    values.readLengths();
    trace("C_GetAttributeValue1 = 0x%x\n", hex32(rv));
    const CK_RV result = values.readValues();
    trace("C_GetAttributeValue2 = 0x%x\n", hex32(rv));
    if (result != CKR_OK) return fail(result);
    storeGroup(env, list, k, kCertificate, values);
    search.next();
    trace("C_FindObjects = 0x%x\n", hex32(rv));
    trace("RemainCount = %d\n", dec32(search.count()));
    if (rv != CKR_OK) return abandonSearch(env, status, search);
  }
  search.end();
  trace("C_FindObjectsFinal = 0x%x\n", hex32(rv));
  return list.array();
} catch (...) {
  return outOfMemoryList(env);
}

JNIEXPORT jobjectArray JNICALL
Java_com_calvenhor_vork_utils_Smartcard_readAllRSAPublicKeysDLL(JNIEnv* env, jclass, jlong slotIndex) try {
  const TracedCall traced;
  return listRsaKeys<CKO_PUBLIC_KEY>(env, slotIndex, "Public", kPublicKey);
} catch (...) {
  return outOfMemoryList(env);
}

JNIEXPORT jobjectArray JNICALL
Java_com_calvenhor_vork_utils_Smartcard_readAllRSAPrivateKeysDLL(JNIEnv* env, jclass, jlong slotIndex) try {
  const TracedCall traced;
  return listRsaKeys<CKO_PRIVATE_KEY>(env, slotIndex, "Private", kPrivateKey);
} catch (...) {
  return outOfMemoryList(env);
}

JNIEXPORT jbyteArray JNICALL
Java_com_calvenhor_vork_utils_Smartcard_readCertificateIDDLL(JNIEnv* env, jclass, jlong slotIndex) try {
  const TracedCall traced;
  return readIdOrLabel(env, slotIndex, x509(), CKA_ID, OnFailure::kTraced);
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jbyteArray JNICALL
Java_com_calvenhor_vork_utils_Smartcard_readCertificateLabelDLL(JNIEnv* env, jclass, jlong slotIndex) try {
  return readIdOrLabel(env, slotIndex, x509(), CKA_LABEL);
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jbyteArray JNICALL Java_com_calvenhor_vork_utils_Smartcard_readPublicKeyIDDLL(JNIEnv* env, jclass,
                                                                                        jlong slotIndex) try {
  return readIdOrLabel(env, slotIndex, objectClass<CKO_PUBLIC_KEY>(), CKA_ID);
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jbyteArray JNICALL
Java_com_calvenhor_vork_utils_Smartcard_readPublicKeyLabelDLL(JNIEnv* env, jclass, jlong slotIndex) try {
  return readIdOrLabel(env, slotIndex, objectClass<CKO_PUBLIC_KEY>(), CKA_LABEL);
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jbyteArray JNICALL
Java_com_calvenhor_vork_utils_Smartcard_readPrivateKeyIDDLL(JNIEnv* env, jclass, jlong slotIndex) try {
  return readIdOrLabel(env, slotIndex, objectClass<CKO_PRIVATE_KEY>(), CKA_ID);
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jbyteArray JNICALL
Java_com_calvenhor_vork_utils_Smartcard_readPrivateKeyLabelDLL(JNIEnv* env, jclass, jlong slotIndex) try {
  return readIdOrLabel(env, slotIndex, objectClass<CKO_PRIVATE_KEY>(), CKA_LABEL);
} catch (...) {
  return outOfMemoryStatus(env);
}
