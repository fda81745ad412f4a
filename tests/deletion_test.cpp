#include "ground.h"

namespace {

class Deletion : public Ground {
 protected:
  void SetUp() override { bindAndLogin(); }
  std::size_t objects() const { return module.slots[0].objects.size(); }
};

TEST_F(Deletion, DeletesTwentyOfWhateverThereIs) {
  for (int i = 0; i < 25; ++i) module.addObject(0, mock::data("data"));
  EXPECT_CKR(CKR_OK, call(ENTRY(delete), 0));
  EXPECT_EQ(objects(), 5U);
  EXPECT_TRUE(calls().starts_with(
      "C_FindObjectsInit(S, null)\nC_FindObjects(S, room 20)\nC_DestroyObject(S, object O1)\n"));
  EXPECT_TRUE(calls().ends_with(")\nC_FindObjectsFinal(S)\n"));
  EXPECT_EQ(traces, "");

  module.failAt("C_DestroyObject", 1, CKR_DEVICE_ERROR);
  EXPECT_CKR(CKR_OK, call(ENTRY(delete), 0)) << "the result of ending the search";
  EXPECT_EQ(objects(), 1U);
  module.failAt("C_FindObjects", 1, CKR_DEVICE_ERROR);
  module.failAt("C_FindObjectsFinal", 1, CKR_DEVICE_MEMORY);
  EXPECT_CKR(CKR_DEVICE_MEMORY, call(ENTRY(delete), 0));
  EXPECT_EQ(objects(), 1U);
}

TEST_F(Deletion, DeletesTheFirstKeyOfAnId) {
  for (int i = 0; i < 2; ++i) {
    module.addObject(0, mock::publicKey("id", "label"));
    module.addObject(0, mock::privateKey("id", "label"));
  }
  const auto search = [](const std::string& objectClass) {
    return "C_FindObjectsInit(S, CKA_CLASS=" + objectClass +
           "00000000000000 CKA_TOKEN=01 CKA_ID=6964)\nC_FindObjects(S, room 1)\nC_FindObjectsFinal(S)\n";
  };
  EXPECT_CKR(CKR_OK, call(ENTRY(deletePublicKey), 0, bytes("id")));
  EXPECT_EQ(calls(), search("02") + "C_DestroyObject(S, object O1)\n");
  EXPECT_EQ(traces, "FindObjectsInit = 0FindObjects = 0FindObjectsFinal = 0DestroyObject = 0");
  EXPECT_CKR(CKR_OK, call(ENTRY(deletePrivateKey), 0, bytes("id")));
  EXPECT_EQ(calls(), search("03") + "C_DestroyObject(S, object O2)\n");

  EXPECT_CKR(CKR_OK, call(ENTRY(deletePublicKey), 0, bytes("id", {})));
  EXPECT_EQ(traces, "FindObjectsInit = 0FindObjects = 0FindObjectsFinal = 0");
  module.failAt("C_DestroyObject", 1, CKR_SESSION_READ_ONLY);
  EXPECT_CKR(CKR_SESSION_READ_ONLY, call(ENTRY(deletePublicKey), 0, bytes("id")));
  EXPECT_EQ(traces, "FindObjectsInit = 0FindObjects = 0FindObjectsFinal = 0DestroyObject = 181");
  EXPECT_EQ(objects(), 2U);
  EXPECT_EQ(-1, call(ENTRY(deletePrivateKey), 1, bytes("id")));
}

// A search that did not begin yields nothing, whatever the module says after it.
TEST_F(Deletion, TouchesNothingThatItsOwnSearchDidNotYield) {
  module.addObject(0, mock::certificate("id", "label", "cert"));
  module.functions.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE_PTR object, CK_ULONG,
                                      CK_ULONG_PTR count) -> CK_RV {
    *object = mock::kFirstObject;
    *count = 1;
    return CKR_OK;
  };
  const auto refuseSearches = [&] {
    module.failAt("C_FindObjectsInit", 1, CKR_OPERATION_ACTIVE);
    module.failAt("C_FindObjectsInit", 2, CKR_OPERATION_ACTIVE);
  };
  refuseSearches();
  EXPECT_CKR(CKR_OPERATION_NOT_INITIALIZED, call(ENTRY(deletePublicKey), 0, bytes("id")));
  refuseSearches();
  EXPECT_CKR(CKR_OPERATION_NOT_INITIALIZED, call(ENTRY(deleteAllCertificates), 0));
  refuseSearches();
  EXPECT_CKR(CKR_OPERATION_NOT_INITIALIZED, call(ENTRY(delete), 0));
  refuseSearches();
  EXPECT_CKR(CKR_OPERATION_ACTIVE,
             call(ENTRY(updateKeyPairIDAndLabel), 0, bytes("id"), bytes("new"), bytes("label")));
  EXPECT_EQ(module.names(), "C_FindObjectsInit C_FindObjectsFinal C_FindObjectsInit C_FindObjectsFinal");
  EXPECT_EQ(objects(), 1U);
}

TEST_F(Deletion, DeletesTheCertificateThatMatchesInEverything) {
  auto certificate = mock::certificate("id", "label", "cert");
  certificate[CKA_SUBJECT] = mock::bytes("subject");
  certificate[CKA_ISSUER] = mock::bytes("issuer");
  certificate[CKA_SERIAL_NUMBER] = mock::bytes("serial");
  module.addObject(0, certificate);
  const auto remove = [&](const Bytes& label) {
    return call(ENTRY(deleteCertificate), 0, bytes("subject"), bytes("issuer"), bytes("serial"), bytes("id"),
                bytes("label", label));
  };
  EXPECT_CKR(CKR_OK, remove(text("lapel")));
  EXPECT_EQ(objects(), 1U);
  EXPECT_CKR(CKR_OK, remove(text("label")));
  EXPECT_EQ(objects(), 0U);
  EXPECT_TRUE(calls().starts_with(
      "C_FindObjectsInit(S, CKA_CLASS=0100000000000000 CKA_CERTIFICATE_TYPE=0000000000000000 CKA_TOKEN=01 "
      "CKA_LABEL=6c6162656c CKA_SERIAL_NUMBER=73657269616c CKA_ISSUER=697373756572 "
      "CKA_SUBJECT=7375626a656374 "
      "CKA_ID=6964)\n"));
  EXPECT_EQ(jniCalls(),
            "GetArrayLength(id) GetArrayLength(subject) GetArrayLength(issuer) GetArrayLength(serial) "
            "GetArrayLength(label) GetByteArrayElements(label) GetByteArrayElements(id) "
            "GetByteArrayElements(subject) GetByteArrayElements(issuer) GetByteArrayElements(serial) "
            "ReleaseByteArrayElements(subject, 0) ReleaseByteArrayElements(issuer, 0) "
            "ReleaseByteArrayElements(serial, 0) ReleaseByteArrayElements(id, 0) "
            "ReleaseByteArrayElements(label, 0)");
}

TEST_F(Deletion, DeletesAllCertificatesAndNothingElse) {
  module.addObject(0, mock::certificate("1", "A", "c"));
  module.addObject(0, mock::data("attribute certificate"));
  module.addObject(0, mock::certificate("2", "B", "d"));
  auto ofSession = mock::certificate("3", "C", "e");
  ofSession[CKA_TOKEN] = mock::kFalse;
  module.addObject(0, ofSession);
  const std::string pass =
      "C_FindObjectsInit(S, CKA_CLASS=0100000000000000 CKA_CERTIFICATE_TYPE=0000000000000000 CKA_TOKEN=01)\n"
      "C_FindObjects(S, room 1)\n";
  module.failAt("C_DestroyObject", 2, CKR_TOKEN_WRITE_PROTECTED);
  EXPECT_CKR(CKR_TOKEN_WRITE_PROTECTED, call(ENTRY(deleteAllCertificates), 0));
  EXPECT_EQ(objects(), 3U);
  EXPECT_CKR(CKR_OK, call(ENTRY(deleteAllCertificates), 0));
  EXPECT_EQ(calls(), pass + "C_DestroyObject(S, object O3)\nC_FindObjectsFinal(S)\n" + pass +
                         "C_FindObjectsFinal(S)\n");
  EXPECT_EQ(traces, "");
  EXPECT_EQ(objects(), 2U);
}

}  // namespace
