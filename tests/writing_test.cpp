#include "ground.h"

namespace {

class Writing : public Ground {
 protected:
  void SetUp() override { bindAndLogin(); }

  jlong writeCertificate() {
    return call(ENTRY(writeCertificate), 0, bytes("cert", {1}), bytes("subject", {2}), bytes("issuer", {3}),
                bytes("serial", {4}), bytes("id", {5}), bytes("label", {0x0a, 0xff}));
  }
  // Components of different lengths, since some are only traced by their lengths.
  jbyteArray component(const std::string& name, std::uint8_t k) { return bytes(name, Bytes(k, k)); }
  static std::string hex(int k) {
    std::string all;
    for (int i = 0; i < k; ++i) all += "0" + std::to_string(k);
    return all;
  }
  jlong writePrivateKey() {
    return call(ENTRY(writePrivateKey), 0, component("n", 1), component("e", 2), component("d", 3),
                component("p", 4), component("q", 5), component("dp", 6), component("dq", 7),
                component("qi", 8), bytes("id", {0x05, 0xab}), bytes("label", {}));
  }
  jlong writeIdentity() {
    return call(ENTRY(writeCertificateAndPrivateKey), 0, bytes("cert", {1, 0xfe}), component("subject", 3),
                component("issuer", 4), component("serial", 5), component("n", 1), component("e", 2),
                component("d", 3), component("p", 4), component("q", 5), component("dp", 6),
                component("dq", 7), component("qi", 8), bytes("id", {5}), bytes("label", {0x0a, 0xff}));
  }
  static std::string privateKey(const std::string& id, const std::string& label) {
    return "C_CreateObject(S, CKA_CLASS=0300000000000000 CKA_KEY_TYPE=0000000000000000 CKA_PRIVATE=01 "
           "CKA_SENSITIVE=01 CKA_EXTRACTABLE=00 CKA_TOKEN=01 CKA_ID=" +
           id + " CKA_LABEL=" + label + " CKA_MODULUS=" + hex(1) + " CKA_PUBLIC_EXPONENT=" + hex(2) +
           " CKA_PRIVATE_EXPONENT=" + hex(3) + " CKA_PRIME_1=" + hex(4) + " CKA_PRIME_2=" + hex(5) +
           " CKA_EXPONENT_1=" + hex(6) + " CKA_EXPONENT_2=" + hex(7) + " CKA_COEFFICIENT=" + hex(8) + ")\n";
  }
  static std::string publicKey(const std::string& id, const std::string& label) {
    return "C_CreateObject(S, CKA_CLASS=0200000000000000 CKA_KEY_TYPE=0000000000000000 CKA_TOKEN=01 CKA_ID=" +
           id + " CKA_LABEL=" + label + " CKA_MODULUS=" + hex(1) + " CKA_PUBLIC_EXPONENT=" + hex(2) + ")\n";
  }
  /// The virtual machine's log of taking these inputs or giving them back, after the lengths.
  static std::string each(const std::string& before, const std::vector<std::string>& names,
                          const std::string& after) {
    std::string all;
    for (const auto& name : names) all += " " + before + "(" + name + after + ")";
    return all;
  }
  static std::string taken(const std::vector<std::string>& names) {
    return each("GetByteArrayElements", names, "");
  }
  static std::string released(const std::vector<std::string>& names) {
    return each("ReleaseByteArrayElements", names, ", 0");
  }
  /// The same log without the lengths, whose order is free.
  std::string inputs() {
    std::string all;
    for (const auto& line : java.log) {
      if (!line.starts_with("GetArrayLength")) all += " " + line;
    }
    return all;
  }
};

TEST_F(Writing, WritesACertificate) {
  EXPECT_CKR(CKR_OK, writeCertificate());
  EXPECT_EQ(calls(),
            "C_CreateObject(S, CKA_CLASS=0100000000000000 CKA_CERTIFICATE_TYPE=0000000000000000 CKA_TOKEN=01 "
            "CKA_LABEL=0aff CKA_SERIAL_NUMBER=04 CKA_ISSUER=03 CKA_SUBJECT=02 CKA_ID=05 CKA_VALUE=01)\n");
  EXPECT_EQ(inputs(), taken({"label", "id", "cert", "subject", "issuer", "serial"}) +
                          released({"cert", "subject", "issuer", "serial", "id", "label"}));
  EXPECT_EQ(traces, "");
  EXPECT_CKR(CKR_OK, writeCertificate());
  EXPECT_EQ(2U, module.slots[0].objects.size());

  EXPECT_CKR(CKR_OK, call(ENTRY(writeAttributeCertificate), 0, bytes("attribute", {9})));
  EXPECT_EQ(calls(), "C_CreateObject(S, CKA_CLASS=0000000000000000 CKA_TOKEN=01 CKA_VALUE=09)\n");
  EXPECT_EQ(traces, "");
  module.failAt("C_CreateObject", 1, CKR_TOKEN_WRITE_PROTECTED);
  EXPECT_CKR(CKR_TOKEN_WRITE_PROTECTED, writeCertificate());
  EXPECT_EQ(-1, call(ENTRY(writeAttributeCertificate), 1, bytes("attribute", {9})));
  EXPECT_EQ(jniCalls(), "");
}

TEST_F(Writing, WritesKeys) {
  EXPECT_CKR(CKR_OK, call(ENTRY(writePublicKey), 0, component("n", 1), component("e", 2), bytes("id", {5}),
                          bytes("label", {6})));
  EXPECT_EQ(calls(), publicKey("05", "06"));
  EXPECT_EQ(inputs(), taken({"label", "n", "e", "id"}) + released({"n", "e", "id", "label"}));
  EXPECT_EQ(traces, "CreateObject(Public Key)...0x0\n");

  EXPECT_CKR(CKR_OK, writePrivateKey());
  EXPECT_EQ(calls(), privateKey("05ab", "") + publicKey("05ab", ""));
  EXPECT_EQ(inputs(), taken({"label", "n", "e", "d", "p", "q", "dp", "dq", "qi", "id"}) +
                          released({"n", "e", "d", "p", "q", "dp", "dq", "qi", "id", "label"}));
  EXPECT_EQ(
      traces,
      "Label : \nId : 5 ab \nDEGERLER OK\nCreateObject(Private Key)...0x0\nCreateObject(Public Key)...0x0\n"
      "RELEASE OK\nDELETE OK\n");

  call(ENTRY(logout), 0);
  EXPECT_CKR(CKR_OK, writePrivateKey()) << "the public key's result";
  EXPECT_NE(traces.find("CreateObject(Private Key)...0x101\nCreateObject(Public Key)...0x0\n"),
            std::string::npos);
  EXPECT_CKR(CKR_ARGUMENTS_BAD, call(ENTRY(writePublicKey), 0, bytes("n"), bytes("e"), bytes("id"), nullptr));
  EXPECT_EQ(calls() + jniCalls() + traces, "");
}

TEST_F(Writing, WritesACertificateWithItsKeys) {
  const std::string sizes =
      "**writeCertificateAndPrivateDLL\nsizeOfModulus = 1\nsizeOfPublicExponent = 2\nsizeOfPrivateExponent = "
      "3\n"
      "sizeOfPrime1 = 4\nsizeOfPrime2 = 5\nsizeOfExponent1 = 6\nsizeOfExponent2 = 7\nsizeOfCoefficient = 8\n"
      "sizeOfSubject = 3\nsizeOfCert = 2\nlabel = a ff \nid = 5 \ncert = 1 fe \n";
  EXPECT_CKR(CKR_OK, writeIdentity());
  EXPECT_EQ(calls(), privateKey("05", "0aff") + publicKey("05", "0aff") +
                         "C_CreateObject(S, CKA_CLASS=0100000000000000 CKA_CERTIFICATE_TYPE=0000000000000000 "
                         "CKA_LABEL=0aff CKA_TOKEN=01 CKA_SERIAL_NUMBER=" +
                         hex(5) + " CKA_ISSUER=" + hex(4) + " CKA_SUBJECT=" + hex(3) +
                         " CKA_ID=05 CKA_VALUE=01fe)\n");
  EXPECT_EQ(inputs(), taken({"label", "n", "e", "d", "p", "q", "dp", "dq", "qi", "id", "cert", "subject",
                             "issuer", "serial"}) +
                          released({"cert", "subject", "issuer", "serial", "n", "e", "d", "p", "q", "dp",
                                    "dq", "qi", "id", "label"}));
  EXPECT_EQ(
      traces,
      sizes + "CreateObject(Private Key)...0x0\nCreateObject(Public Key)...0x0\nCreateObject(Cert)...0x0\n");

  // Every creation is tried, and the certificate's alone is the result.
  module.failAt("C_CreateObject", 1, CKR_DEVICE_ERROR);
  module.failAt("C_CreateObject", 2, CKR_DEVICE_MEMORY);
  EXPECT_CKR(CKR_OK, writeIdentity());
  EXPECT_EQ(
      traces,
      sizes +
          "CreateObject(Private Key)...0x30\nCreateObject(Public Key)...0x31\nCreateObject(Cert)...0x0\n");
  module.failAt("C_CreateObject", 3, CKR_DEVICE_ERROR);
  EXPECT_CKR(CKR_DEVICE_ERROR, writeIdentity());
  EXPECT_EQ(6U, module.slots[0].objects.size());

  call(ENTRY(closeSession), 0);
  EXPECT_CKR(CKR_SESSION_HANDLE_INVALID, writeIdentity()) << "a stale handle is the module's to refuse";
  call(ENTRY(finalize));
  EXPECT_EQ(-1, writeIdentity());
  EXPECT_EQ(traces, "**writeCertificateAndPrivateDLL\n");
}

TEST_F(Writing, RenamesAKeyPair) {
  module.addObject(0, mock::certificate("id", "old", "cert"));
  module.addObject(0, mock::publicKey("id", "old"));
  module.addObject(0, mock::publicKey("id", "old"));
  module.addObject(0, mock::privateKey("id", "old"));
  const auto rename = [&](const char* id) {
    return call(ENTRY(updateKeyPairIDAndLabel), 0, bytes("id", text(id)), bytes("new id", {7}),
                bytes("new label", {8}));
  };
  const auto search = [](const std::string& objectClass) {
    return "C_FindObjectsInit(S, CKA_CLASS=" + objectClass +
           "00000000000000 CKA_TOKEN=01 CKA_ID=6964)\nC_FindObjects(S, room 1)\nC_FindObjectsFinal(S)\n";
  };
  EXPECT_CKR(CKR_OK, rename("id"));
  EXPECT_EQ(calls(), search("03") + search("02") +
                         "C_SetAttributeValue(S, object O4, CKA_ID=07 CKA_LABEL=08)\n" +
                         "C_SetAttributeValue(S, object O2, CKA_ID=07 CKA_LABEL=08)\n");
  EXPECT_EQ(inputs(), taken({"id", "new label", "new id"}) + released({"id", "new id", "new label"}));
  EXPECT_EQ(traces,
            "FindObjectsInit (Priv) = 0FindObjects = 0FindObjectsFinal = 0FindObjectsInit (Public) = "
            "0FindObjects = 0"
            "FindObjectsFinal = 0Private key update = 0Public key update = 0");

  // Half of the pair is left under the old ID, then none.
  EXPECT_CKR(CKR_OK, rename("id"));
  EXPECT_TRUE(traces.ends_with("Private key update = 130Public key update = 0"));
  EXPECT_CKR(CKR_OBJECT_HANDLE_INVALID, rename("id"));
  EXPECT_EQ(calls(), search("03") + search("02"));
  EXPECT_TRUE(module.slots[0].objects[0].has(CKA_ID, mock::bytes("id"))) << "the certificate keeps its ID";

  module.failAt("C_SetAttributeValue", 1, CKR_VENDOR_DEFINED | 1);
  EXPECT_CKR(CKR_OK, rename("\x07")) << "the public key's result";
  EXPECT_TRUE(traces.ends_with("Private key update = -2147483647Public key update = 0"));
  module.failAt("C_FindObjects", 2, CKR_DEVICE_ERROR);
  EXPECT_CKR(CKR_DEVICE_ERROR, rename("\x07"));
  EXPECT_TRUE(traces.ends_with(
      "(Public) = 0FindObjects = 48FindObjectsFinal = 0Private key update = 0Public key update = 48"));
}

TEST_F(Writing, GivesACertificateTheLabelOfAPublicKey) {
  const auto setLabel = [&] { return call(ENTRY(setCertificateLabel), nullptr, 0); };
  EXPECT_CKR(CKR_OBJECT_HANDLE_INVALID, setLabel());
  module.addObject(0, mock::publicKey("id", "new"));
  EXPECT_CKR(CKR_OBJECT_HANDLE_INVALID, setLabel());
  module.addObject(0, mock::certificate("id", "old", "cert"));
  EXPECT_CKR(CKR_OK, setLabel());
  EXPECT_EQ(
      calls(),
      "C_FindObjectsInit(S, CKA_CLASS=0200000000000000)\nC_FindObjects(S, room 1)\n"
      "C_GetAttributeValue(S, object O1, CKA_LABEL/null)\nC_GetAttributeValue(S, object O1, CKA_LABEL/3)\n"
      "C_FindObjectsFinal(S)\nC_FindObjectsInit(S, CKA_CERTIFICATE_TYPE=0000000000000000)\n"
      "C_FindObjects(S, room 1)\nC_SetAttributeValue(S, object O2, "
      "CKA_LABEL=6e6577)\nC_FindObjectsFinal(S)\n");
  EXPECT_EQ(jniCalls() + traces, "");
  module.failAt("C_SetAttributeValue", 1, CKR_DEVICE_ERROR);
  EXPECT_CKR(CKR_OK, setLabel()) << "the result of ending the search";
  module.failAt("C_FindObjectsFinal", 2, CKR_DEVICE_ERROR);
  EXPECT_CKR(CKR_DEVICE_ERROR, setLabel());
  module.failAt("C_FindObjects", 2, CKR_DEVICE_ERROR);
  EXPECT_CKR(CKR_DEVICE_ERROR, setLabel());
  for (const std::size_t nth : {1U, 2U}) {
    module.failAt("C_GetAttributeValue", nth, CKR_DEVICE_ERROR);
    EXPECT_CKR(CKR_DEVICE_ERROR, setLabel());
    EXPECT_EQ(module.callsOf("C_GetAttributeValue"), nth);
  }
  module.slots[0].objects[0].attributes.erase(CKA_LABEL);
  EXPECT_CKR(CKR_ATTRIBUTE_TYPE_INVALID, setLabel());
  EXPECT_EQ(module.callsOf("C_SetAttributeValue"), 0U);
  EXPECT_EQ(-1, call(ENTRY(setCertificateLabel), bytes("unread"), -1));
  call(ENTRY(closeSession), 0);
  EXPECT_CKR(CKR_SESSION_HANDLE_INVALID, setLabel());
}

}  // namespace
