#include "ground.h"

namespace {

class Reading : public Ground {
 protected:
  void SetUp() override { bindAndLogin(); }

  void addCertificates() {
    module.addObject(0, mock::certificate("1", "A", "cert"));
    module.addObject(0, mock::data("attribute"));
    module.addObject(0, mock::certificate("2", "", "longer"));
  }
  void addKeys() {
    module.addObject(0, mock::publicKey("1", "A", {0xc1, 0xc2}));
    module.addObject(0, mock::privateKey("1", "A"));
    auto elliptic = mock::publicKey("3", "C");
    elliptic[CKA_KEY_TYPE] = mock::number(CKK_EC);
    module.addObject(0, elliptic);
    module.addObject(0, mock::publicKey("2", "", {0xc3}));
    module.addObject(0, mock::privateKey("2", ""));
  }

  /// Every C_GetAttributeValue from now on claims to have read values of this length.
  void claimLengths(CK_ULONG first, CK_ULONG second) {
    claimed[0] = first;
    claimed[1] = second;
    module.functions.C_GetAttributeValue = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE,
                                              CK_ATTRIBUTE_PTR attributes, CK_ULONG count) -> CK_RV {
      for (CK_ULONG i = 0; i < count; ++i)
        attributes[i].ulValueLen = claimed[attributes[i].pValue != nullptr];
      return CKR_OK;
    };
  }
  static inline CK_ULONG claimed[2] = {};
};

TEST_F(Reading, CountsVisibleObjects) {
  EXPECT_EQ(0, call(ENTRY(isCardEmpty), 0));
  EXPECT_EQ(calls(), "C_FindObjectsInit(S, null)\nC_FindObjects(S, room 1)\nC_FindObjectsFinal(S)\n");
  EXPECT_EQ(0, call(ENTRY(getObjectCountInTheToken), 0));
  EXPECT_EQ(calls(), "C_FindObjectsInit(S, null)\nC_FindObjects(S, room 20)\nC_FindObjectsFinal(S)\n");
  for (int i = 0; i < 25; ++i) module.addObject(0, mock::privateKey("", ""));
  EXPECT_EQ(1, call(ENTRY(isCardEmpty), 0));
  EXPECT_EQ(20, call(ENTRY(getObjectCountInTheToken), 0));

  for (const auto* failing : {"C_FindObjectsInit", "C_FindObjects", "C_FindObjectsFinal"}) {
    module.failAt(failing, 1, CKR_DEVICE_ERROR);
    const bool endFails = std::string(failing) != "C_FindObjects";
    EXPECT_EQ(endFails ? -1 : 0, call(ENTRY(isCardEmpty), 0));
    EXPECT_EQ(module.names(), "C_FindObjectsInit C_FindObjects C_FindObjectsFinal");
    module.failAt(failing, 1, CKR_DEVICE_ERROR);
    EXPECT_EQ(std::string(failing) == "C_FindObjectsFinal" ? 20 : 0,
              call(ENTRY(getObjectCountInTheToken), 0));
  }
  module.functions.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE_PTR, CK_ULONG,
                                      CK_ULONG_PTR count) -> CK_RV {
    *count = 1000;
    return CKR_OK;
  };
  EXPECT_EQ(1, call(ENTRY(isCardEmpty), 0));
  EXPECT_EQ(20, call(ENTRY(getObjectCountInTheToken), 0));
  call(ENTRY(logout), 0);
  EXPECT_EQ(-1, call(ENTRY(isCardEmpty), 1));
}

TEST_F(Reading, ReadsTheFirstCertificate) {
  EXPECT_EQ("{02}", shown(call(ENTRY(readCertificate), 0)));
  addCertificates();
  EXPECT_EQ(text("cert"), java.bytesOf(call(ENTRY(readCertificate), 0)));
  EXPECT_EQ(
      calls(),
      "C_FindObjectsInit(S, CKA_CERTIFICATE_TYPE=0000000000000000)\nC_FindObjects(S, room 1)\n"
      "C_GetAttributeValue(S, object O1, CKA_VALUE/null)\nC_GetAttributeValue(S, object O1, CKA_VALUE/4)\n"
      "C_FindObjectsFinal(S)\n");
  EXPECT_EQ(jniCalls(), "NewByteArray(1) NewByteArray(4) SetByteArrayRegion(byte[4], 0, 4)");
  EXPECT_EQ(text("attribute"), java.bytesOf(call(ENTRY(readAttributeCertificate), 0)));
  EXPECT_TRUE(calls().starts_with("C_FindObjectsInit(S, CKA_CLASS=0000000000000000)\n"));

  const auto read = [&] { return shown(call(ENTRY(readCertificate), 0)); };
  for (const auto& [failing, nth, status] : std::vector<std::tuple<const char*, std::size_t, const char*>>{
           {"C_FindObjectsInit", 1, "{02}"},
           {"C_FindObjects", 1, "{02}"},
           {"C_GetAttributeValue", 1, "{01}"},  // left a length of 0, for which the value is too long
           {"C_GetAttributeValue", 2, "{01}"},
           {"C_FindObjectsFinal", 1, "{63 65 72 74}"}}) {
    module.failAt(failing, nth, CKR_DEVICE_ERROR);
    EXPECT_EQ(status, read()) << failing;
  }
  EXPECT_EQ(traces, "");
  claimLengths(CK_UNAVAILABLE_INFORMATION, CK_UNAVAILABLE_INFORMATION);
  EXPECT_EQ("{01}", read());
  module.functions.C_GetAttributeValue = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR attribute,
                                            CK_ULONG) -> CK_RV {
    static int calls = 0;
    attribute->ulValueLen = ++calls == 1 ? CK_UNAVAILABLE_INFORMATION : 0;
    return CKR_OK;
  };
  EXPECT_EQ("{01}", read()) << "copied to no buffer";
  claimLengths(1UL << 31U, 1);
  EXPECT_EQ("{01}", read());
  claimLengths(4, 5);
  EXPECT_EQ("{01}", read());
  claimLengths(4, 2);
  EXPECT_EQ("{00 00}", read()) << "nothing that the module did not write";
  module.functions.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE_PTR, CK_ULONG,
                                      CK_ULONG_PTR count) -> CK_RV {
    *count = 1;
    return CKR_DEVICE_ERROR;
  };
  EXPECT_EQ("{00}", read());
}

TEST_F(Reading, ReadsIdsAndLabels) {
  const struct {
    jbyteArray (*entry)(JNIEnv*, jclass, jlong);
    const char* search;
    const char* attribute;
    const char* value;
  } family[] = {
      {ENTRY(readCertificateID), "CKA_CERTIFICATE_TYPE=0000000000000000", "CKA_ID", "{11}"},
      {ENTRY(readCertificateLabel), "CKA_CERTIFICATE_TYPE=0000000000000000", "CKA_LABEL", "{6c 31}"},
      {ENTRY(readPublicKeyID), "CKA_CLASS=0200000000000000", "CKA_ID", "{22 22}"},
      {ENTRY(readPublicKeyLabel), "CKA_CLASS=0200000000000000", "CKA_LABEL", "{6c 32}"},
      {ENTRY(readPrivateKeyID), "CKA_CLASS=0300000000000000", "CKA_ID", "{}"},
      {ENTRY(readPrivateKeyLabel), "CKA_CLASS=0300000000000000", "CKA_LABEL", "{6c 33}"}};
  for (const auto& member : family) EXPECT_EQ("{00}", shown(call(member.entry, 0))) << member.search;
  module.addObject(0, mock::certificate("\x11", "l1", "cert"));
  module.addObject(0, mock::publicKey("\x22\x22", "l2"));
  module.addObject(0, mock::privateKey("", "l3"));
  for (const auto& member : family) {
    SCOPED_TRACE(member.search + std::string(member.attribute));
    EXPECT_EQ(member.value, shown(call(member.entry, 0)));
    EXPECT_TRUE(calls().starts_with("C_FindObjectsInit(S, " + std::string(member.search) + ")\n"));
    EXPECT_NE(calls().find(member.attribute + std::string("/null")), std::string::npos);
    EXPECT_EQ(module.names(),
              "C_FindObjectsInit C_FindObjects C_GetAttributeValue C_GetAttributeValue C_FindObjectsFinal");
    EXPECT_EQ(traces, "");
    module.failAt("C_GetAttributeValue", 2, CKR_VENDOR_DEFINED | 7);
    EXPECT_EQ("{01}", shown(call(member.entry, 0)));
    EXPECT_EQ(traces, member.entry == ENTRY(readCertificateID) ? "2 -2147483641\n" : "");
    module.failAt("C_FindObjects", 1, CKR_DEVICE_ERROR);
    EXPECT_EQ("{00}", shown(call(member.entry, 0)));
    EXPECT_EQ("{00}", shown(call(member.entry, 2)));
  }
}

TEST_F(Reading, ListsCertificates) {
  const std::string none =
      "slotIndex = 0C_FindObjectsInit = 0x0\nC_FindObjects = 0x0, 0x0\nC_FindObjectsFinal = "
      "0x0\nTotalCertCount = 0\n";
  EXPECT_EQ("{{00}}", shown(call(ENTRY(readAllCertificates), 0)));
  EXPECT_EQ(traces, none);
  addCertificates();
  EXPECT_EQ("{{00} {31} {41} {63 65 72 74} {32} {} {6c 6f 6e 67 65 72}}",
            shown(call(ENTRY(readAllCertificates), 0)));
  const std::string init = "C_FindObjectsInit(S, CKA_CERTIFICATE_TYPE=0000000000000000)\n";
  const std::string next = "C_FindObjects(S, room 1)\n";
  const std::string end = "C_FindObjectsFinal(S)\n";
  EXPECT_EQ(calls(), init + next + next + next + end + init + next +
                         "C_GetAttributeValue(S, object O1, CKA_VALUE/null CKA_ID/null CKA_LABEL/null)\n"
                         "C_GetAttributeValue(S, object O1, CKA_VALUE/4 CKA_ID/1 CKA_LABEL/1)\n" +
                         next +
                         "C_GetAttributeValue(S, object O3, CKA_VALUE/null CKA_ID/null CKA_LABEL/null)\n"
                         "C_GetAttributeValue(S, object O3, CKA_VALUE/6 CKA_ID/1 CKA_LABEL/0)\n" +
                         next + end);
  EXPECT_TRUE(
      jniCalls().starts_with("NewByteArray(1) GetObjectClass(byte[1]) NewObjectArray(7, byte[].class) "
                             "SetByteArrayRegion(byte[1], 0, 1) "
                             "SetObjectArrayElement(byte[7][], 0, byte[1]) NewByteArray(4) "))
      << jniCalls();
  EXPECT_EQ(jniCalls().find("DeleteLocalRef"), std::string::npos);
  EXPECT_EQ(
      traces,
      "slotIndex = 0C_FindObjectsInit = 0x0\nC_FindObjects = 0x0, 0x1\nC_FindObjects = 0x0, 0x1\n"
      "C_FindObjects = 0x0, 0x0\nC_FindObjectsFinal = 0x0\nTotalCertCount = 2\nC_FindObjectsInit (2) = 0x0\n"
      "C_GetAttributeValue1 = 0x0\nC_GetAttributeValue2 = 0x0\nCert size 1 = 4\nID size 1 = 1\n"
      "Label size 1 = 1\nC_FindObjects = 0x0\nRemainCount = 1\nC_GetAttributeValue1 = 0x0\n"
      "C_GetAttributeValue2 = 0x0\nCert size 2 = 6\nID size 2 = 1\nLabel size 2 = 0\nC_FindObjects = 0x0\n"
      "RemainCount = 0\nC_FindObjectsFinal = 0x0\n");
}

TEST_F(Reading, ListsRsaKeys) {
  EXPECT_EQ("{{00}}", shown(call(ENTRY(readAllRSAPublicKeys), 0)));
  EXPECT_EQ(traces, "TotalPublicKeyCount = 0\n");
  addKeys();
  EXPECT_EQ("{{00} {31} {41} {c1 c2} {01 00 01} {32} {} {c3} {01 00 01}}",
            shown(call(ENTRY(readAllRSAPublicKeys), 0)));
  EXPECT_TRUE(calls().starts_with(
      "C_FindObjectsInit(S, CKA_CLASS=0200000000000000 CKA_KEY_TYPE=0000000000000000)\n"));
  EXPECT_NE(
      calls().find(
          "C_GetAttributeValue(S, object O1, CKA_MODULUS/2 CKA_PUBLIC_EXPONENT/3 CKA_ID/1 CKA_LABEL/1)"),
      std::string::npos);
  EXPECT_EQ(
      traces,
      "TotalPublicKeyCount = 2\nModulus size 1 = 2\nPubExp size 1 = 3\nID size 1 = 1\nLabel size 1 = 1\n"
      "Modulus size 2 = 1\nPubExp size 2 = 3\nID size 2 = 1\nLabel size 2 = 0\nC_FindObjectsFinal = 0x0\n");
  EXPECT_EQ("{{00} {31} {41} {32} {}}", shown(call(ENTRY(readAllRSAPrivateKeys), 0)));
  EXPECT_NE(calls().find("C_GetAttributeValue(S, object O5, CKA_ID/1 CKA_LABEL/0)"), std::string::npos);
  EXPECT_EQ(traces,
            "TotalPrivateKeyCount = 2\nID size 1 = 1\nLabel size 1 = 1\nID size 2 = 1\nLabel size 2 = 0\n"
            "C_FindObjectsFinal = 0x0\n");
  call(ENTRY(logout), 0);
  EXPECT_EQ("{{00}}", shown(call(ENTRY(readAllRSAPrivateKeys), 0)));
}

// Which failure gives a result of one element, which one as far as it was filled, and which none.
TEST_F(Reading, FailsInTheListingsAsFarAsTheyGot) {
  module.addObject(0, mock::certificate("1", "A", "c"));
  module.addObject(0, mock::certificate("2", "B", "d"));
  module.addObject(0, mock::privateKey("1", "A"));
  module.addObject(0, mock::privateKey("2", "B"));
  const std::string certificate = " {31} {41} {63}";
  const std::string noCertificate = " null null null";
  const std::string one = "{{30}}";
  const struct {
    const char* function;
    std::size_t nth;
    std::string certificates;
    std::string keys;
  } failures[] = {
      {"C_FindObjectsInit", 1, one, one},
      {"C_FindObjects", 1, one, one},
      {"C_FindObjects", 3, one, one},
      {"C_FindObjectsFinal", 1, "{{00}" + certificate + " {32} {42} {64}}", one},
      {"C_FindObjectsInit", 2, "{{91}}", "{{30} null null null null}"},
      {"C_FindObjects", 4, one, "{{30} null null null null}"},
      {"C_GetAttributeValue", 1, "{{50}" + noCertificate + noCertificate + "}", "{{30} null null null null}"},
      {"C_GetAttributeValue", 2, "{{30}" + noCertificate + noCertificate + "}", "{{30} null null null null}"},
      {"C_GetAttributeValue", 4, "{{30}" + certificate + noCertificate + "}", "{{30} {31} {41} null null}"},
      {"C_FindObjects", 5, one, "{{30} {31} {41} null null}"},
      {"C_FindObjects", 6, one, "{{30} {31} {41} {32} {42}}"},
      {"C_FindObjectsFinal", 2, "{{00}" + certificate + " {32} {42} {64}}", "{{00} {31} {41} {32} {42}}"},
  };
  for (const auto& failure : failures) {
    SCOPED_TRACE(failure.function + std::to_string(failure.nth));
    module.failAt(failure.function, failure.nth, CKR_DEVICE_ERROR);
    EXPECT_EQ(failure.certificates, shown(call(ENTRY(readAllCertificates), 0)));
    if (failure.function == std::string("C_GetAttributeValue") && failure.nth == 4) {
      EXPECT_TRUE(traces.ends_with("C_GetAttributeValue1 = 0x0\nC_GetAttributeValue2 = 0x30\n"));
    }
    module.failAt(failure.function, failure.nth, CKR_DEVICE_ERROR);
    EXPECT_EQ(failure.keys, shown(call(ENTRY(readAllRSAPrivateKeys), 0)));
  }
  EXPECT_EQ("{{b3}}", shown(call(ENTRY(readAllCertificates), 2)));
  EXPECT_EQ("{{b3}}", shown(call(ENTRY(readAllRSAPublicKeys), -1)));
  claimLengths(CK_UNAVAILABLE_INFORMATION, 0);
  EXPECT_EQ("{{05} null null null null}", shown(call(ENTRY(readAllRSAPrivateKeys), 0)));
}

// The count pass and the enumeration pass see different tokens.
TEST_F(Reading, SurvivesATokenThatChangesBetweenThePasses) {
  addKeys();
  const auto atSecondSearch = [&](std::function<void()> change) {
    module.onCall = [&, change](const std::string& name) {
      if (name == "C_FindObjectsInit" && module.callsOf(name) == 2) change();
    };
  };
  atSecondSearch([&] { module.slots[0].objects.pop_back(); });
  EXPECT_EQ("{{05} {31} {41} null null}", shown(call(ENTRY(readAllRSAPrivateKeys), 0)));
  atSecondSearch([&] { module.addObject(0, mock::privateKey("9", "Z")); });
  EXPECT_EQ("{{00} {31} {41}}", shown(call(ENTRY(readAllRSAPrivateKeys), 0)));
  module.addObject(0, mock::certificate("1", "A", "c"));
  atSecondSearch([&] { module.addObject(0, mock::certificate("2", "B", "d")); });
  EXPECT_EQ("{{00} {31} {41} {63}}", shown(call(ENTRY(readAllCertificates), 0)));
  EXPECT_TRUE(traces.ends_with("RemainCount = 1\nC_FindObjectsFinal = 0x0\n"));
  atSecondSearch([&] { module.slots[0].objects.resize(module.slots[0].objects.size() - 2); });
  EXPECT_EQ("{{05} null null null null null null}", shown(call(ENTRY(readAllCertificates), 0)));
}

TEST_F(Reading, GivesUpLocalReferencesOfLargeResults) {
  for (int i = 0; i < 5; ++i) module.addObject(0, mock::certificate("1", "A", "c"));
  EXPECT_EQ(16U, java.elementsOf(call(ENTRY(readAllCertificates), 0)).size());
  EXPECT_EQ(jniCalls().find("DeleteLocalRef"), std::string::npos);
  for (int i = 0; i < 995; ++i) module.addObject(0, mock::certificate("1", "A", "c"));
  const auto elements = java.elementsOf(call(ENTRY(readAllCertificates), 0));
  EXPECT_LE(java.mostLocalReferences(), 6U);
  ASSERT_EQ(3001U, elements.size());
  EXPECT_EQ(text("c"), java.bytesOf(elements.back()));
}

}  // namespace
