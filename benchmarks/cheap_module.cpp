// A PKCS#11 module that costs next to nothing, so that what remains of a call's time is its caller's own
// cost. Its one token holds a private key and certificates, none of which is stored: each attribute is made
// when it is asked for. The environment names a file with a certificate and says how many there are; they
// differ in ID, label and serial number. A signature is 256 zeros.

#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <span>
#include <string>

namespace {

using Bytes = std::span<const CK_BYTE>;

constexpr CK_SLOT_ID kSlot = 7;
constexpr CK_OBJECT_HANDLE kPrivateKey = 1;  // the certificates follow
constexpr CK_ULONG kSignatureLength = 256;
constexpr std::size_t kSerialNumber = 16;  // where it stands in the certificate, but for its first byte

CK_OBJECT_HANDLE lastObject = 0;
std::string certificate;
bool loggedIn = false;

struct Search {
  struct Wanted {
    CK_ATTRIBUTE_TYPE type;
    std::array<CK_BYTE, 32> value;
    std::size_t size;
  };
  std::array<Wanted, 8> wanted;
  std::size_t size;
  CK_OBJECT_HANDLE next;
};
std::array<Search, 64> searches;  // one for each session
CK_SESSION_HANDLE lastSession = 0;

template <class T, T Value>
Bytes constant() {
  static constexpr T value = Value;
  return {reinterpret_cast<const CK_BYTE*>(&value), sizeof value};
}

template <CK_BBOOL Value>
Bytes flag() {
  return constant<CK_BBOOL, Value>();
}

Bytes bytes(const char* characters, std::size_t size) {
  return {reinterpret_cast<const CK_BYTE*>(characters), size};
}

/// "certificate 00001", or of it the number alone.
Bytes name(CK_ULONG number, bool alone) {
  static char label[] = "certificate 00000";
  constexpr std::size_t digits = 5;
  constexpr std::size_t prefix = sizeof label - 1 - digits;
  for (std::size_t i = prefix + digits; i > prefix; number /= 10) {
    label[--i] = static_cast<char>('0' + number % 10);
  }
  return alone ? bytes(label + prefix, digits) : bytes(label, prefix + digits);
}

/// The value of an attribute, good until the next is asked for; nothing where the object has no such
/// attribute.
Bytes attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
  const bool isKey = object == kPrivateKey;
  const CK_ULONG number = isKey ? 1 : object - kPrivateKey;  // the key goes with the first certificate
  switch (type) {
    case CKA_CLASS:
      return isKey ? constant<CK_ULONG, CKO_PRIVATE_KEY>() : constant<CK_ULONG, CKO_CERTIFICATE>();
    case CKA_TOKEN:
      return flag<CK_TRUE>();
    case CKA_PRIVATE:
      return isKey ? flag<CK_TRUE>() : flag<CK_FALSE>();
    case CKA_ID:
    case CKA_LABEL:
      return name(number, type == CKA_ID);
    case CKA_SENSITIVE:
    case CKA_SIGN:
      return isKey ? flag<CK_TRUE>() : Bytes{};
    case CKA_EXTRACTABLE:
      return isKey ? flag<CK_FALSE>() : Bytes{};
    case CKA_KEY_TYPE:
      return isKey ? constant<CK_ULONG, CKK_RSA>() : Bytes{};
    case CKA_MODULUS: {
      static const std::string modulus(kSignatureLength, '\x80');
      return isKey ? bytes(modulus.data(), modulus.size()) : Bytes{};
    }
    case CKA_PUBLIC_EXPONENT:
      return isKey ? bytes("\1\0\1", 3) : Bytes{};
    case CKA_CERTIFICATE_TYPE:
      return isKey ? Bytes{} : constant<CK_ULONG, CKC_X_509>();
    case CKA_VALUE:
      if (isKey) return {};
      std::memcpy(certificate.data() + kSerialNumber, &number, 4);
      return bytes(certificate.data(), certificate.size());
    default:
      return {};
  }
}

bool matches(CK_OBJECT_HANDLE object, const Search& search) {
  return std::all_of(search.wanted.begin(), search.wanted.begin() + search.size,
                     [object](const Search::Wanted& wanted) {
                       const Bytes value = attribute(object, wanted.type);
                       return value.size() == wanted.size &&
                              std::memcmp(value.data(), wanted.value.data(), wanted.size) == 0;
                     });
}

CK_RV initialize(void*) {
  std::ifstream file(std::getenv("BENCH_CERTIFICATE"), std::ios::binary);
  certificate.assign(std::istreambuf_iterator<char>(file), {});
  lastObject = kPrivateKey + std::strtoul(std::getenv("BENCH_CERTIFICATES"), nullptr, 10);
  return certificate.size() > kSerialNumber + 4 ? CKR_OK : CKR_FUNCTION_FAILED;
}

CK_RV getTokenInfo(CK_SLOT_ID, CK_TOKEN_INFO* token) {
  *token = {};
  std::memset(token->label, ' ', sizeof token->label);
  token->flags = CKF_TOKEN_INITIALIZED | CKF_USER_PIN_INITIALIZED | CKF_LOGIN_REQUIRED;
  token->ulMaxSessionCount = token->ulMaxRwSessionCount = searches.size() - 1;
  return CKR_OK;
}

CK_RV getMechanismList(CK_SLOT_ID, CK_MECHANISM_TYPE* types, CK_ULONG* count) {
  constexpr std::array<CK_MECHANISM_TYPE, 2> all = {CKM_RSA_PKCS, CKM_SHA256_RSA_PKCS};
  if (types != nullptr) std::copy(all.begin(), all.end(), types);
  *count = all.size();
  return CKR_OK;
}

CK_RV findObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE* wanted, CK_ULONG size) {
  Search& search = searches[session];
  if (size > search.wanted.size()) return CKR_ARGUMENTS_BAD;
  for (std::size_t i = 0; i < size; ++i) {
    search.wanted[i].type = wanted[i].type;
    search.wanted[i].size = wanted[i].ulValueLen;
    std::memcpy(search.wanted[i].value.data(), wanted[i].pValue,
                std::min<std::size_t>(wanted[i].ulValueLen, search.wanted[i].value.size()));
  }
  search.size = size;
  search.next = kPrivateKey;
  return CKR_OK;
}

CK_RV findObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG room, CK_ULONG* count) {
  Search& search = searches[session];
  for (*count = 0; *count < room && search.next <= lastObject; ++search.next) {
    if (matches(search.next, search)) objects[(*count)++] = search.next;
  }
  return CKR_OK;
}

CK_RV getAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attributes, CK_ULONG size) {
  CK_RV result = CKR_OK;
  for (CK_ATTRIBUTE& wanted : std::span(attributes, size)) {
    const Bytes value = attribute(object, wanted.type);
    if (value.empty()) {
      wanted.ulValueLen = CK_UNAVAILABLE_INFORMATION;
      result = CKR_ATTRIBUTE_TYPE_INVALID;
      continue;
    }
    if (wanted.pValue != nullptr) std::copy(value.begin(), value.end(), static_cast<CK_BYTE*>(wanted.pValue));
    wanted.ulValueLen = value.size();
  }
  return result;
}

CK_RV sign(CK_BYTE* signature, CK_ULONG* length) {
  if (signature != nullptr) std::memset(signature, 0, kSignatureLength);
  *length = kSignatureLength;
  return CKR_OK;
}

}  // namespace

extern "C" [[gnu::visibility("default")]] CK_RV C_GetFunctionList(CK_FUNCTION_LIST** result) {
  static CK_FUNCTION_LIST list = {};
  list.version = {2, 40};
  list.C_Initialize = initialize;
  list.C_Finalize = [](void*) -> CK_RV { return CKR_OK; };
  list.C_GetInfo = [](CK_INFO* info) -> CK_RV {
    *info = {};
    info->cryptokiVersion = {2, 40};
    return CKR_OK;
  };
  list.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID* slots, CK_ULONG* count) -> CK_RV {
    if (slots != nullptr) *slots = kSlot;
    *count = 1;
    return CKR_OK;
  };
  list.C_GetSlotInfo = [](CK_SLOT_ID, CK_SLOT_INFO* slot) -> CK_RV {
    slot->flags = CKF_TOKEN_PRESENT;
    return CKR_OK;
  };
  list.C_GetTokenInfo = getTokenInfo;
  list.C_GetMechanismList = getMechanismList;
  list.C_GetMechanismInfo = [](CK_SLOT_ID, CK_MECHANISM_TYPE, CK_MECHANISM_INFO* mechanism) -> CK_RV {
    *mechanism = {1024, 4096, CKF_SIGN};
    return CKR_OK;
  };
  list.C_OpenSession = [](CK_SLOT_ID, CK_FLAGS, void*, CK_NOTIFY, CK_SESSION_HANDLE* session) -> CK_RV {
    *session = lastSession = lastSession % (searches.size() - 1) + 1;
    return CKR_OK;
  };
  list.C_CloseSession = [](CK_SESSION_HANDLE) -> CK_RV { return CKR_OK; };
  list.C_GetSessionInfo = [](CK_SESSION_HANDLE, CK_SESSION_INFO* session) -> CK_RV {
    *session = {kSlot, loggedIn ? CKS_RW_USER_FUNCTIONS : CKS_RW_PUBLIC_SESSION, CKF_RW_SESSION, 0};
    return CKR_OK;
  };
  list.C_Login = [](CK_SESSION_HANDLE, CK_USER_TYPE, CK_BYTE*, CK_ULONG) -> CK_RV {
    loggedIn = true;
    return CKR_OK;
  };
  list.C_FindObjectsInit = findObjectsInit;
  list.C_FindObjects = findObjects;
  list.C_FindObjectsFinal = [](CK_SESSION_HANDLE) -> CK_RV { return CKR_OK; };
  list.C_GetAttributeValue = getAttributeValue;
  list.C_SignInit = [](CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE) -> CK_RV { return CKR_OK; };
  list.C_Sign = [](CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE* signature, CK_ULONG* length) -> CK_RV {
    return sign(signature, length);
  };
  list.C_SignUpdate = [](CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG) -> CK_RV { return CKR_OK; };
  list.C_SignFinal = [](CK_SESSION_HANDLE, CK_BYTE* signature, CK_ULONG* length) -> CK_RV {
    return sign(signature, length);
  };
  *result = &list;
  return CKR_OK;
}
