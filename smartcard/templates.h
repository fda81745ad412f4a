#pragma once

#include <p11-kit/pkcs11.h>

#include <array>

#include "marshal.h"
#include "module.h"

// Attributes and templates can be copied freely: constants have static storage, and byte strings belong to
// the inputs. A template with constants is sent only once, because the module may overwrite them.

/// A CK_ULONG attribute with a fixed value: an object class, a key type or a certificate type. The variable
/// is not const, because the module may write to it. Each new template sets the variable again.
template <CK_ATTRIBUTE_TYPE Type, CK_ULONG Value>
CK_ATTRIBUTE constant() {
  static CK_ULONG value;
  value = Value;
  return {Type, &value, sizeof value};
}

template <CK_OBJECT_CLASS Class>
CK_ATTRIBUTE objectClass() {
  return constant<CKA_CLASS, Class>();
}
inline CK_ATTRIBUTE rsa() { return constant<CKA_KEY_TYPE, CKK_RSA>(); }
inline CK_ATTRIBUTE x509() { return constant<CKA_CERTIFICATE_TYPE, CKC_X_509>(); }

/// A boolean attribute: `yes` or `no`. Each new template sets the variable again, as in constant().
inline CK_ATTRIBUTE flag(CK_ATTRIBUTE_TYPE type, CK_BBOOL& value) {
  value = &value == &yes ? CK_TRUE : CK_FALSE;
  return {type, &value, sizeof value};
}

inline CK_ATTRIBUTE bytes(CK_ATTRIBUTE_TYPE type, const ByteInput& input) {
  return {type, input.data(), input.size()};
}

// Inputs that belong together. Their functions process the members in order.

/// The DER encodings that identify a certificate, besides its ID and label.
struct CertificateFields {
  ByteInput subject;
  ByteInput issuer;
  ByteInput serialNumber;

  void take() { takeAll(subject, issuer, serialNumber); }
  void release() { releaseAll(subject, issuer, serialNumber); }
  void discard() { discardAll(subject, issuer, serialNumber); }
};

/// A whole RSA private key. All but the first two members are secret.
struct RsaComponents {
  ByteInput modulus;
  ByteInput publicExponent;
  ByteInput privateExponent;
  ByteInput prime1;
  ByteInput prime2;
  ByteInput exponent1;
  ByteInput exponent2;
  ByteInput coefficient;

  void take() {
    takeAll(modulus, publicExponent, privateExponent, prime1, prime2, exponent1, exponent2, coefficient);
  }
  void release() {
    releaseAll(modulus, publicExponent, privateExponent, prime1, prime2, exponent1, exponent2, coefficient);
  }
  void discard() {
    discardAll(modulus, publicExponent, privateExponent, prime1, prime2, exponent1, exponent2, coefficient);
  }
};

// Templates with more than one caller. Attributes are sent in this order.

/// The RSA keys of one class, both token and session objects.
template <CK_OBJECT_CLASS Class>
std::array<CK_ATTRIBUTE, 2> rsaKeySearch() {
  return {objectClass<Class>(), rsa()};
}

/// A key on the token, by its ID.
template <CK_OBJECT_CLASS Class>
std::array<CK_ATTRIBUTE, 3> tokenKeySearch(const ByteInput& id) {
  return {
      objectClass<Class>(),
      flag(CKA_TOKEN, yes),
      bytes(CKA_ID, id),
  };
}

/// A certificate on the token, by every attribute except its value.
inline std::array<CK_ATTRIBUTE, 8> certificateSearch(const CertificateFields& fields, const ByteInput& id,
                                                     const ByteInput& label) {
  return {
      objectClass<CKO_CERTIFICATE>(),
      x509(),
      flag(CKA_TOKEN, yes),
      bytes(CKA_LABEL, label),
      bytes(CKA_SERIAL_NUMBER, fields.serialNumber),
      bytes(CKA_ISSUER, fields.issuer),
      bytes(CKA_SUBJECT, fields.subject),
      bytes(CKA_ID, id),
  };
}

inline std::array<CK_ATTRIBUTE, 16> rsaPrivateKeyTemplate(const RsaComponents& key, const ByteInput& id,
                                                          const ByteInput& label) {
  return {
      objectClass<CKO_PRIVATE_KEY>(),
      rsa(),
      flag(CKA_PRIVATE, yes),
      flag(CKA_SENSITIVE, yes),
      flag(CKA_EXTRACTABLE, no),
      flag(CKA_TOKEN, yes),
      bytes(CKA_ID, id),
      bytes(CKA_LABEL, label),
      bytes(CKA_MODULUS, key.modulus),
      bytes(CKA_PUBLIC_EXPONENT, key.publicExponent),
      bytes(CKA_PRIVATE_EXPONENT, key.privateExponent),
      bytes(CKA_PRIME_1, key.prime1),
      bytes(CKA_PRIME_2, key.prime2),
      bytes(CKA_EXPONENT_1, key.exponent1),
      bytes(CKA_EXPONENT_2, key.exponent2),
      bytes(CKA_COEFFICIENT, key.coefficient),
  };
}

/// Has no CKA_PRIVATE: the token decides whether the public key is a private object.
inline std::array<CK_ATTRIBUTE, 7> rsaPublicKeyTemplate(const ByteInput& modulus,
                                                        const ByteInput& publicExponent, const ByteInput& id,
                                                        const ByteInput& label) {
  return {
      objectClass<CKO_PUBLIC_KEY>(),
      rsa(),
      flag(CKA_TOKEN, yes),
      bytes(CKA_ID, id),
      bytes(CKA_LABEL, label),
      bytes(CKA_MODULUS, modulus),
      bytes(CKA_PUBLIC_EXPONENT, publicExponent),
  };
}
