#include "ground.h"

namespace {

class Signing : public Ground {
 protected:
  void SetUp() override {
    bindAndLogin();
    module.addObject(0, mock::privateKey("one", "first"));
    module.addObject(0, mock::privateKey("two", "second", mock::Bytes(128, 0xc2)));
  }
  /// The signature of the key with this number, as the module makes it.
  Bytes signature(std::size_t key, const std::string& data) {
    return module.slots[0].objects.at(key - 1).sign(mock::bytes(data));
  }
  std::string signWithId(const std::string& id) {
    return shown(call(ENTRY(signWithID), 0, bytes("data"), bytes("id", text(id))));
  }
  const std::string found =
      "C_FindObjectsInit(S, CKA_CLASS=0300000000000000)\nC_FindObjects(S, room 1)\nC_FindObjectsFinal(S)\n";
};

TEST_F(Signing, SignsWithTheFirstPrivateKey) {
  EXPECT_EQ(signature(1, "data"), java.bytesOf(call(ENTRY(sign), 0, bytes("data"))));
  EXPECT_EQ(calls(), found + "C_SignInit(S, mechanism 0x1, key O1)\nC_Sign(S, data 64617461, room 1024)\n");
  EXPECT_EQ(
      jniCalls(),
      "GetArrayLength(data) GetByteArrayElements(data) NewByteArray(1) ReleaseByteArrayElements(data, 0) "
      "NewByteArray(256) SetByteArrayRegion(byte[256], 0, 256)");
  EXPECT_EQ(traces,
            "*** JNI *** C_Sign = 0\n*** JNI *** resultLen = 256\n*** JNI ***  dataTemp released\n"
            "*** JNI ***  Result set to environment\n*** JNI ***  data deleted\n");

  call(ENTRY(sign), 0, bytes("nothing", {}));
  EXPECT_TRUE(calls().ends_with("C_Sign(S, data , room 1024)\n")) << "no data, but a real address";
}

TEST_F(Signing, ReportsEachFailure) {
  const auto sign = [&] { return shown(call(ENTRY(sign), 0, bytes("data"))); };
  module.failAt("C_FindObjectsInit", 1, CKR_DEVICE_ERROR);
  EXPECT_EQ("{00}", sign());
  EXPECT_EQ(calls(), found);
  EXPECT_EQ(traces, "");
  module.failAt("C_SignInit", 1, CKR_KEY_FUNCTION_NOT_PERMITTED);
  EXPECT_EQ("{68}", sign());
  EXPECT_EQ(traces, "C_SignInit = 0x68\n");
  module.failAt("C_Sign", 1, CKR_VENDOR_DEFINED | 0x21);
  EXPECT_EQ("{21}", sign());
  EXPECT_EQ(traces,
            "*** JNI *** C_Sign = -2147483615\n*** JNI *** resultLen = 1024\nC_Sign rv = -2147483615\n"
            "ResultLen = 1024\n");
  module.functions.C_Sign = [](CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR,
                               CK_ULONG_PTR length) -> CK_RV {
    *length = 1025;
    return CKR_OK;
  };
  EXPECT_EQ("{05}", sign()) << "more than its buffer holds";
  call(ENTRY(logout), 0);
  EXPECT_EQ("{00}", sign());
  EXPECT_EQ(calls(), found);
  EXPECT_EQ("{00}", shown(call(ENTRY(sign), 5, bytes("data"))));
  EXPECT_EQ(calls(), "");
  EXPECT_EQ("{07}", shown(call(ENTRY(sign), 0, nullptr)));
}

TEST_F(Signing, SignsWithTheKeyOfAnId) {
  EXPECT_EQ(signature(2, "data"), java.bytesOf(call(ENTRY(signWithID), 0, bytes("data"), bytes("two"))));
  EXPECT_EQ(
      calls(),
      "C_FindObjectsInit(S, CKA_CLASS=0300000000000000 CKA_ID=74776f)\nC_FindObjects(S, room 1)\n"
      "C_FindObjectsFinal(S)\nC_SignInit(S, mechanism 0x1, key O2)\nC_Sign(S, data 64617461, room 1025)\n");
  EXPECT_EQ(
      jniCalls(),
      "GetArrayLength(two) GetByteArrayElements(two) GetArrayLength(data) GetByteArrayElements(data) "
      "NewByteArray(1) ReleaseByteArrayElements(two, 0) ReleaseByteArrayElements(data, 0) NewByteArray(128) "
      "SetByteArrayRegion(byte[128], 0, 128)");
  const std::string address =
      traces.substr(traces.find("once result = ") + 14, traces.find("sonra") - traces.find("once") - 15);
  EXPECT_EQ(address.find("0x"), 0U);
  EXPECT_EQ(traces,
            "Query ID Len = 3\nC_FindObjectsInit = 0x0\nC_FindObjects = 0x0\nObjectCount = 1\n"
            "C_FindObjectsFinal = 0x0\nonce result = " +
                address + "\nsonra result = " + address +
                "\nC_SignInit = 0x0\nC_Sign = 0x0\nresultLen = 128\n");
}

TEST_F(Signing, ReportsEachFailureWithAnId) {
  EXPECT_EQ("{00}", signWithId("three"));
  EXPECT_EQ(traces,
            "Query ID Len = 5\nC_FindObjectsInit = 0x0\nC_FindObjects = 0x0\nObjectCount = "
            "0\nC_FindObjectsFinal = 0x0\n");
  EXPECT_EQ("{00}", signWithId("")) << "only a key without an ID has this one";
  module.failAt("C_FindObjects", 1, CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ("{50}", signWithId("two"));
  EXPECT_EQ(module.names(), "C_FindObjectsInit C_FindObjects C_FindObjectsFinal");
  EXPECT_EQ(traces,
            "Query ID Len = 3\nC_FindObjectsInit = 0x0\nC_FindObjects = 0x150\nObjectCount = 0\nFindObjects "
            "failed\n");
  module.failAt("C_SignInit", 1, CKR_KEY_TYPE_INCONSISTENT);
  EXPECT_EQ("{91}", signWithId("two")) << "the refusal is that of C_Sign";
  EXPECT_TRUE(traces.ends_with("C_SignInit = 0x63\nC_Sign = 0x91\nresultLen = 1025\n"));
  EXPECT_EQ("{b3}", shown(call(ENTRY(signWithID), -1, bytes("data"), bytes("two"))));
  EXPECT_EQ("{07}", shown(call(ENTRY(signWithID), 0, bytes("data"), nullptr)));
  EXPECT_EQ(traces, "");
}

TEST_F(Signing, GeneratesAKeyPair) {
  const auto generate = [&](jlong bits) {
    return call(ENTRY(generateKeyPair), 0, bits, bytes("exponent", {1, 0, 1}), bytes("id", {0xa1}),
                bytes("label", {0x4c}));
  };
  const Bytes modulus = java.bytesOf(generate(2048));
  EXPECT_EQ(modulus.size(), 256U);
  EXPECT_EQ(
      calls(),
      "C_GenerateKeyPair(S, mechanism 0x0, public CKA_ID=a1 CKA_LABEL=4c CKA_ENCRYPT=01 CKA_VERIFY=01 "
      "CKA_WRAP=01 CKA_TOKEN=01 CKA_MODULUS_BITS=0008000000000000 CKA_PUBLIC_EXPONENT=010001, "
      "private CKA_ID=a1 CKA_LABEL=4c CKA_TOKEN=01 CKA_DECRYPT=01 CKA_SIGN=01 CKA_UNWRAP=01 CKA_PRIVATE=01 "
      "CKA_SENSITIVE=01 CKA_EXTRACTABLE=00)\n"
      "C_GetAttributeValue(S, object O3, CKA_MODULUS/null)\nC_GetAttributeValue(S, object O3, "
      "CKA_MODULUS/256)\n");
  EXPECT_EQ(jniCalls(),
            "GetArrayLength(label) GetByteArrayElements(label) GetArrayLength(id) GetByteArrayElements(id) "
            "GetArrayLength(exponent) GetByteArrayElements(exponent) NewByteArray(256) "
            "SetByteArrayRegion(byte[256], 0, 256) ReleaseByteArrayElements(id, 0) "
            "ReleaseByteArrayElements(label, 0) ReleaseByteArrayElements(exponent, 0)");
  EXPECT_EQ(traces, "");

  EXPECT_EQ("{62}", shown(generate(512)));
  for (const std::size_t nth : {1U, 2U}) {
    module.failAt("C_GetAttributeValue", nth, CKR_DEVICE_ERROR);
    EXPECT_EQ("{30}", shown(generate(1024)));
  }
  module.functions.C_GetAttributeValue = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR a,
                                            CK_ULONG) -> CK_RV {
    a->ulValueLen = CK_UNAVAILABLE_INFORMATION;
    return CKR_OK;
  };
  EXPECT_EQ("{05}", shown(generate(1024)));
  EXPECT_EQ("{07}", shown(call(ENTRY(generateKeyPair), 0, 1024, bytes("exponent"), bytes("id"), nullptr)));
  EXPECT_EQ(calls() + jniCalls(), "NewByteArray(1) SetByteArrayRegion(byte[1], 0, 1)");
}

TEST_F(Signing, DecryptsNothing) { EXPECT_EQ(1, call(ENTRY(decrypt))); }

}  // namespace
