#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "com_calvenhor_vork_utils_Smartcard.h"
#include "marshal.h"
#include "module.h"
#include "search.h"
#include "templates.h"

namespace {

std::array<CK_ATTRIBUTE, 9> certificateTemplate(const ByteInput& certificate, const CertificateFields& fields,
                                                const ByteInput& id, const ByteInput& label) {
  std::array<CK_ATTRIBUTE, 9> object = {};
  std::ranges::copy(certificateSearch(fields, id, label), object.begin());
  object.back() = bytes(CKA_VALUE, certificate);
  return object;
}

/// Creates an object and ignores its handle.
CK_RV create(Session session, std::span<CK_ATTRIBUTE> object) {
  CK_OBJECT_HANDLE handle = 0;
  return call(&CK_FUNCTION_LIST::C_CreateObject, session, object.data(), object.size(), &handle);
}

void createTraced(Session session, const char* what, std::span<CK_ATTRIBUTE> object) {
  trace("CreateObject(%s)...", what);
  create(session, object);
  trace("0x%x\n", hex32(rv));
}

void takeTraced(const char* heading, ByteInput& input) {
  input.take();
  traceBytes(heading, {input.data(), input.size()});
}

/// Sets the ID and label of the key that the search found. Returns the code of C_SetAttributeValue, or the
/// reason why no key was found.
CK_RV update(Session session, const Search<>& search, std::array<CK_ATTRIBUTE, 2> idAndLabel) {
  if (!search.found()) return search.notFoundCode();
  return call(&CK_FUNCTION_LIST::C_SetAttributeValue, session, search.object(), idAndLabel.data(),
              idAndLabel.size());
}

}  // namespace

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_writeCertificateDLL(
    JNIEnv* env, jclass, jlong slotIndex, jbyteArray jCertificate, jbyteArray jSubject, jbyteArray jIssuer,
    jbyteArray jSerialNumber, jbyteArray jId, jbyteArray jLabel) try {
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  if (anyNull(jCertificate, jSubject, jIssuer, jSerialNumber, jId, jLabel)) return CKR_ARGUMENTS_BAD;
  ByteInput certificate(env, jCertificate);
  CertificateFields fields = {{env, jSubject}, {env, jIssuer}, {env, jSerialNumber}};
  ByteInput id(env, jId);
  ByteInput label(env, jLabel);
  takeAll(label, id, certificate, fields);

  auto object = certificateTemplate(certificate, fields, id, label);
  create(sessionAt(slotIndex), object);

  releaseAll(certificate, fields, id, label);
  return asJava(rv);
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_writeAttributeCertificateDLL(
    JNIEnv* env, jclass, jlong slotIndex, jbyteArray jAttributeCertificate) try {
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  if (anyNull(jAttributeCertificate)) return CKR_ARGUMENTS_BAD;
  ByteInput attributeCertificate(env, jAttributeCertificate);
  attributeCertificate.take();

  std::array object = {
      objectClass<CKO_DATA>(),
      flag(CKA_TOKEN, yes),
      bytes(CKA_VALUE, attributeCertificate),
  };
  return asJava(create(sessionAt(slotIndex), object));
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_writePublicKeyDLL(
    JNIEnv* env, jclass, jlong slotIndex, jbyteArray jModulus, jbyteArray jPublicExponent, jbyteArray jId,
    jbyteArray jLabel) try {
  const TracedCall traced;
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  if (anyNull(jModulus, jPublicExponent, jId, jLabel)) return CKR_ARGUMENTS_BAD;
  ByteInput modulus(env, jModulus);
  ByteInput publicExponent(env, jPublicExponent);
  ByteInput id(env, jId);
  ByteInput label(env, jLabel);
  takeAll(label, modulus, publicExponent, id);

  auto publicKey = rsaPublicKeyTemplate(modulus, publicExponent, id, label);
  createTraced(sessionAt(slotIndex), "Public Key", publicKey);

  releaseAll(modulus, publicExponent, id, label);
  return asJava(rv);
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_writePrivateKeyDLL(
    JNIEnv* env, jclass, jlong slotIndex, jbyteArray jModulus, jbyteArray jPublicExponent,
    jbyteArray jPrivateExponent, jbyteArray jPrime1, jbyteArray jPrime2, jbyteArray jExponent1,
    jbyteArray jExponent2, jbyteArray jCoefficient, jbyteArray jId, jbyteArray jLabel) try {
  const TracedCall traced;
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  if (anyNull(jModulus, jPublicExponent, jPrivateExponent, jPrime1, jPrime2, jExponent1, jExponent2,
              jCoefficient, jId, jLabel)) {
    return CKR_ARGUMENTS_BAD;
  }
  const Session session = sessionAt(slotIndex);
  RsaComponents key = {{env, jModulus}, {env, jPublicExponent}, {env, jPrivateExponent}, {env, jPrime1},
                       {env, jPrime2},  {env, jExponent1},      {env, jExponent2},       {env, jCoefficient}};
  ByteInput id(env, jId);
  ByteInput label(env, jLabel);
  takeTraced("Label : ", label);
  key.take();
  takeTraced("Id : ", id);
  trace("DEGERLER OK\n");

  auto privateKey = rsaPrivateKeyTemplate(key, id, label);
  createTraced(session, "Private Key", privateKey);
  auto publicKey = rsaPublicKeyTemplate(key.modulus, key.publicExponent, id, label);
  createTraced(session, "Public Key", publicKey);

  releaseAll(key, id, label);
  trace("RELEASE OK\n");
  discardAll(key, id, label);
  trace("DELETE OK\n");
  return asJava(rv);
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_writeCertificateAndPrivateKeyDLL(
    JNIEnv* env, jclass, jlong slotIndex, jbyteArray jCertificate, jbyteArray jSubject, jbyteArray jIssuer,
    jbyteArray jSerialNumber, jbyteArray jModulus, jbyteArray jPublicExponent, jbyteArray jPrivateExponent,
    jbyteArray jPrime1, jbyteArray jPrime2, jbyteArray jExponent1, jbyteArray jExponent2,
    jbyteArray jCoefficient, jbyteArray jId, jbyteArray jLabel) try {
  const TracedCall traced;
  trace("**writeCertificateAndPrivateDLL\n");
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  if (anyNull(jCertificate, jSubject, jIssuer, jSerialNumber, jModulus, jPublicExponent, jPrivateExponent,
              jPrime1, jPrime2, jExponent1, jExponent2, jCoefficient, jId, jLabel)) {
    return CKR_ARGUMENTS_BAD;
  }
  const Session session = sessionAt(slotIndex);

  RsaComponents key = {{env, jModulus}, {env, jPublicExponent}, {env, jPrivateExponent}, {env, jPrime1},
                       {env, jPrime2},  {env, jExponent1},      {env, jExponent2},       {env, jCoefficient}};
  ByteInput id(env, jId);
  trace("sizeOfModulus = %d\n", key.modulus.length());
  trace("sizeOfPublicExponent = %d\n", key.publicExponent.length());
  trace("sizeOfPrivateExponent = %d\n", key.privateExponent.length());
  trace("sizeOfPrime1 = %d\n", key.prime1.length());
  trace("sizeOfPrime2 = %d\n", key.prime2.length());
  trace("sizeOfExponent1 = %d\n", key.exponent1.length());
  trace("sizeOfExponent2 = %d\n", key.exponent2.length());
  trace("sizeOfCoefficient = %d\n", key.coefficient.length());

  ByteInput certificate(env, jCertificate);
  CertificateFields fields = {{env, jSubject}, {env, jIssuer}, {env, jSerialNumber}};
  trace("sizeOfSubject = %d\n", fields.subject.length());
  trace("sizeOfCert = %d\n", certificate.length());

  ByteInput label(env, jLabel);
  takeTraced("label = ", label);
  key.take();
  takeTraced("id = ", id);
  takeTraced("cert = ", certificate);
  fields.take();

  auto privateKey = rsaPrivateKeyTemplate(key, id, label);
  createTraced(session, "Private Key", privateKey);
  auto publicKey = rsaPublicKeyTemplate(key.modulus, key.publicExponent, id, label);
  createTraced(session, "Public Key", publicKey);
  auto object = certificateTemplate(certificate, fields, id, label);
  std::swap(object[2], object[3]);  // here the label precedes CKA_TOKEN
  createTraced(session, "Cert", object);

  releaseAll(certificate, fields, key, id, label);
  return asJava(rv);
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_updateKeyPairIDAndLabelDLL(
    JNIEnv* env, jclass, jlong slotIndex, jbyteArray jId, jbyteArray jNewId, jbyteArray jNewLabel) try {
  const TracedCall traced;
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  if (anyNull(jId, jNewId, jNewLabel)) return CKR_ARGUMENTS_BAD;
  const Session session = sessionAt(slotIndex);
  ByteInput id(env, jId);
  id.take();
  ByteInput newLabel(env, jNewLabel);
  newLabel.take();
  ByteInput newId(env, jNewId);
  newId.take();

  Search privateKeySearch(session, tokenKeySearch<CKO_PRIVATE_KEY>(id));
  runTraced(privateKeySearch, "FindObjectsInit (Priv)");
  Search publicKeySearch(session, tokenKeySearch<CKO_PUBLIC_KEY>(id));
  runTraced(publicKeySearch, "FindObjectsInit (Public)");

  const std::array idAndLabel = {bytes(CKA_ID, newId), bytes(CKA_LABEL, newLabel)};
  trace("Private key update = %d", dec32(update(session, privateKeySearch, idAndLabel)));
  const CK_RV result = update(session, publicKeySearch, idAndLabel);
  trace("Public key update = %d", dec32(result));

  releaseAll(id, newId, newLabel);
  return asJava(result);
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_setCertificateLabelDLL(JNIEnv*, jclass,
                                                                                       jbyteArray,
                                                                                       jlong slotIndex) try {
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  const Session session = sessionAt(slotIndex);

  Search keySearch(session, std::array{objectClass<CKO_PUBLIC_KEY>()});
  keySearch.next();
  if (!keySearch.found()) return asJava(keySearch.notFoundCode());
  AttributeRead<1> label(session, keySearch.object(), {CKA_LABEL});
  if (label.readLengths() != CKR_OK) return asJava(rv);
  if (const CK_RV result = label.readValues(); result != CKR_OK) return asJava(result);
  keySearch.end();

  Search x509Search(session, std::array{x509()});
  x509Search.next();
  if (!x509Search.found()) return asJava(x509Search.notFoundCode());
  CK_ATTRIBUTE newLabel = {CKA_LABEL, label[0].data(), label[0].size()};
  call(&CK_FUNCTION_LIST::C_SetAttributeValue, session, x509Search.object(), &newLabel, 1);
  return asJava(x509Search.end());
} catch (...) {
  return CKR_HOST_MEMORY;
}
