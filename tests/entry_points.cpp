#include "entry_points.h"

#include <algorithm>
#include <cstdio>
#include <tuple>
#include <type_traits>

#include "com_calvenhor_vork_utils_Smartcard.h"

/// Options for AddressSanitizer: an allocation of more than 512 MB returns null instead of ending the
/// process.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=512";
}

namespace {

template <class T>
T convert(FakeJni& java, const Argument& argument) {
  if constexpr (std::is_same_v<T, jlong>) {
    return argument.number;
  } else {
    if (!argument.content) return nullptr;
    if constexpr (std::is_same_v<T, jstring>) return java.string(argument.name, *argument.content);
    if constexpr (std::is_same_v<T, jbyteArray>) return java.bytes(argument.name, *argument.content);
  }
}

template <class Result>
constexpr const char* kForm = std::is_same_v<Result, jlong>          ? "%"
                              : std::is_same_v<Result, jbyteArray>   ? "{%}"
                              : std::is_same_v<Result, jobjectArray> ? "{{%}}"
                                                                     : "[]";

template <class Result, class... Parameter>
EntryPoint entry(const char* name, Result (*function)(JNIEnv*, jclass, Parameter...), Arguments arguments,
                 State state = State::kUser, const std::set<std::string>& swallowed = {},
                 bool mayTakeNull = false) {
  const auto call = [function](FakeJni& java, const Arguments& values) {
    [[maybe_unused]] auto value = values.begin();
    const std::tuple<JNIEnv*, jclass, Parameter...> all{java.env(), nullptr,
                                                        convert<Parameter>(java, *value++)...};
    return java.format(std::apply(function, all));
  };
  return {name, state, std::move(arguments), swallowed, mayTakeNull, kForm<Result>, call};
}

}  // namespace

std::string EntryPoint::formatCode(CK_RV code) const {
  char digits[24];
  std::snprintf(digits, sizeof digits, form == "%" ? "%lu" : "%02lx", form == "%" ? code : code & 0xffU);
  const auto place = form.find('%');
  return place == std::string::npos ? form : std::string(form).replace(place, 1, digits);
}

const std::vector<EntryPoint>& entryPoints() {
#define ENTRY(name) #name, Java_com_calvenhor_vork_utils_Smartcard_##name##DLL
#define SECRET(name) Argument(name, std::string(name "\0\0\0\xfe", sizeof name + 3))
#define RSA "n", "e", SECRET("d"), SECRET("p"), SECRET("q"), SECRET("dp"), SECRET("dq"), SECRET("qi")
  const Argument slot(0, true);
  static const std::vector<EntryPoint> table = {
      entry(ENTRY(init), {MOCK_MODULE}, State::kUnbound),
      entry(ENTRY(getSlotCount), {}),
      entry(ENTRY(finalize), {}),
      entry(ENTRY(getSlotInfo), {slot}),
      entry(ENTRY(readSlotDescription), {slot}),
      entry(ENTRY(getTokenInfo), {slot}),
      entry(ENTRY(readCardLabel), {slot}),
      entry(ENTRY(readCardSerialNumber), {slot}),
      entry(ENTRY(waitForSlotEvent), {7}),
      entry(ENTRY(getMechanismInfo), {slot, CKM_RSA_PKCS}),
      entry(ENTRY(getSupportedMechanismList), {slot}),
      entry(ENTRY(openSession), {slot}),
      entry(ENTRY(closeSession), {slot}, State::kUser, {"C_CloseSession", "C_CloseAllSessions#1"}),
      entry(ENTRY(isSessionOpen), {slot}),
      entry(ENTRY(getSessionInfo), {slot}),
      entry(ENTRY(login), {slot, "1234", CKU_USER}, State::kOpen, {}, true),
      entry(ENTRY(logout), {slot}),
      entry(ENTRY(changePIN), {slot, "1234", 4, "4321", 4}),
      entry(ENTRY(initToken), {slot, "12345678", 8}, State::kBound),
      entry(ENTRY(initUserPIN), {slot, "4321", 4}, State::kSecurityOfficer),
      entry(ENTRY(isCardEmpty), {slot}, State::kUser),
      entry(ENTRY(getObjectCountInTheToken), {slot}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(readCertificate), {slot}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(readAttributeCertificate), {slot}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(readAllCertificates), {slot}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(readAllRSAPublicKeys), {slot}, State::kUser, {"C_FindObjectsFinal#2"}),
      entry(ENTRY(readAllRSAPrivateKeys), {slot}, State::kUser, {"C_FindObjectsFinal#2"}),
      entry(ENTRY(readCertificateID), {slot}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(readCertificateLabel), {slot}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(readPublicKeyID), {slot}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(readPublicKeyLabel), {slot}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(readPrivateKeyID), {slot}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(readPrivateKeyLabel), {slot}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(writeCertificate), {slot, "cert", "subject", "issuer", "serial", "id", "label"}),
      entry(ENTRY(writeAttributeCertificate), {slot, "cert"}),
      entry(ENTRY(writePublicKey), {slot, "n", "e", "id", "label"}),
      entry(ENTRY(writePrivateKey), {slot, RSA, "id", "label"}, State::kUser, {"C_CreateObject#1"}),
      entry(ENTRY(writeCertificateAndPrivateKey),
            {slot, "cert", "subject", "issuer", "serial", RSA, "id", "label"}, State::kUser,
            {"C_CreateObject#1", "C_CreateObject#2"}),
      entry(ENTRY(setCertificateLabel), {"unread", slot}, State::kUser,
            {"C_SetAttributeValue", "C_FindObjectsFinal#1"}, true),
      entry(ENTRY(updateKeyPairIDAndLabel), {slot, "id", "new id", "new label"}, State::kUser,
            {"C_FindObjectsInit#1", "C_FindObjects#1", "C_FindObjectsFinal", "C_SetAttributeValue#1"}),
      entry(ENTRY(delete), {slot}, State::kUser, {"C_FindObjects", "C_DestroyObject"}),
      entry(ENTRY(deleteCertificate), {slot, "subject", "issuer", "serial", "id", "label"}, State::kUser,
            {"C_FindObjects", "C_FindObjectsFinal"}),
      entry(ENTRY(deletePublicKey), {slot, "id"}, State::kUser, {"C_FindObjects", "C_FindObjectsFinal"}),
      entry(ENTRY(deletePrivateKey), {slot, "id"}, State::kUser, {"C_FindObjects", "C_FindObjectsFinal"}),
      entry(ENTRY(deleteAllCertificates), {slot}, State::kUser, {"C_FindObjects", "C_FindObjectsFinal#1"}),
      entry(ENTRY(sign), {slot, SECRET("data")}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(signWithID), {slot, SECRET("data"), "id"}, State::kUser, {"C_FindObjectsFinal"}),
      entry(ENTRY(generateKeyPair), {slot, 1024, "e", "id", "label"}),
      entry(ENTRY(decrypt), {}),
  };
#undef RSA
#undef SECRET
#undef ENTRY
  return table;
}

const EntryPoint& entryPoint(const std::string& name) {
  const auto& all = entryPoints();
  return *std::find_if(all.begin(), all.end(), [&](const auto& entry) { return entry.name == name; });
}

void populate(mock::Module& module) {
  module.slots[1] = module.slots[0];
  module.slots[1].id = 0x22;
  const mock::Bytes modulus(256, 'n');
  module.addObject(CKO_CERTIFICATE, "id", "label", "cert");
  module.slots[0].objects[0].attributes.merge(
      mock::Attributes{{CKA_SUBJECT, "subject"}, {CKA_ISSUER, "issuer"}, {CKA_SERIAL_NUMBER, "serial"}});
  module.addObject(CKO_DATA, "", "", "attribute certificate");
  module.addObject(CKO_PUBLIC_KEY, "id", "label", modulus);
  module.addObject(CKO_PRIVATE_KEY, "id", "label", modulus);
}
