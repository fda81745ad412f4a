// Modules that do what no module should, as far as what the library makes of it is decided.

#include <unistd.h>

#include "ground.h"

namespace {

class OddModule : public Ground {
 protected:
  /// C_GetAttributeValue succeeds and claims these lengths, in the first call and in the second.
  void claimLengths(CK_ULONG first, CK_ULONG second) {
    static CK_ULONG claims[2];
    static int calls;
    claims[0] = first;
    claims[1] = second;
    calls = 0;
    module.functions.C_GetAttributeValue = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE,
                                              CK_ATTRIBUTE_PTR attributes, CK_ULONG count) -> CK_RV {
      const CK_ULONG claim = claims[calls++ % 2];
      for (CK_ULONG i = 0; i < count; ++i) attributes[i].ulValueLen = claim;
      return CKR_OK;
    };
  }

  /// C_FindObjects succeeds and reports so many objects, though no search may be active.
  template <CK_ULONG Count>
  void reportObjects(CK_RV result = CKR_OK) {
    static CK_RV answer;
    answer = result;
    module.functions.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE_PTR objects, CK_ULONG,
                                        CK_ULONG_PTR count) -> CK_RV {
      *objects = mock::kFirstObject;
      *count = Count;
      return answer;
    };
  }

  /// The module changes when the second search of a call begins.
  void atSecondSearch(const std::function<void()>& change) {
    module.onCall = [this, change](const std::string& line) {
      if (line.starts_with("C_FindObjectsInit") && module.callsOf("C_FindObjectsInit") == 2) change();
    };
  }
};

TEST_F(OddModule, LengthsThatCannotBe) {
  const std::pair<CK_ULONG, CK_ULONG> claims[] = {{CK_UNAVAILABLE_INFORMATION, CK_UNAVAILABLE_INFORMATION},
                                                  {CK_UNAVAILABLE_INFORMATION, 0},
                                                  {1UL << 31, 1},
                                                  {4, 5}};
  for (const auto& [first, second] : claims) {
    begin(State::kUser, true);
    claimLengths(first, second);
    EXPECT_EQ("{01}", call("readCertificate", {0}));
    EXPECT_EQ("{01}", call("readPublicKeyID", {0}));
    EXPECT_EQ("{{05} null null null}", call("readAllCertificates", {0}));
    EXPECT_EQ("{{05} null null}", call("readAllRSAPrivateKeys", {0}));
    EXPECT_EQ("{05}", call(entryPoint("generateKeyPair")));
    EXPECT_EQ("5", call(entryPoint("setCertificateLabel")));
    EXPECT_EQ(module.callsOf("C_SetAttributeValue"), 0U);
  }
  claimLengths(4, 2);
  EXPECT_EQ("{00 00}", call("readCertificate", {0})) << "nothing that the module did not write";
}

TEST_F(OddModule, MoreThanThereWasRoomFor) {
  begin(State::kUser, true);
  module.functions.C_Sign = [](CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR,
                               CK_ULONG_PTR length) -> CK_RV {
    ++*length;
    return CKR_OK;
  };
  EXPECT_EQ("{05}", call(entryPoint("signWithID")));
  module.genuine.C_CloseSession(mock::kFirstSession);  // and with it the signing that goes on
  call("openSession", {0});
  call("login", {0, "1234", CKU_USER});
  EXPECT_EQ("{05}", call(entryPoint("sign")));
  reportObjects<5000>();
  EXPECT_EQ("1", call("isCardEmpty", {0}));
  EXPECT_EQ("20", call("getObjectCountInTheToken", {0}));
  EXPECT_EQ("{02}", call("readCertificate", {0}));
  static int destroyed = 0;
  module.functions.C_DestroyObject = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE) -> CK_RV {
    ++destroyed;
    return CKR_OK;
  };
  call("delete", {0});
  EXPECT_EQ(destroyed, 20);
  module.functions.C_GetMechanismList = [](CK_SLOT_ID, CK_MECHANISM_TYPE_PTR list,
                                           CK_ULONG_PTR count) -> CK_RV {
    *count = list == nullptr ? 1 : 9;
    if (list != nullptr) *list = 7;
    return CKR_OK;
  };
  EXPECT_EQ("[7]", call("getSupportedMechanismList", {0}));
  module.functions.C_GetMechanismList = [](CK_SLOT_ID, CK_MECHANISM_TYPE_PTR, CK_ULONG_PTR count) -> CK_RV {
    *count = 1UL << 31U;
    return CKR_OK;
  };
  EXPECT_EQ("[]", call("getSupportedMechanismList", {0}));
}

TEST_F(OddModule, SearchesThatNeverBegan) {
  begin(State::kUser, true);
  reportObjects<1>(CKR_DEVICE_ERROR);
  EXPECT_EQ("{00}", call("readCertificate", {0}));
  EXPECT_EQ("1", call("isCardEmpty", {0})) << "only the end of the search is looked at";
  reportObjects<1>();
  for (const auto* name :
       {"deletePublicKey", "deleteAllCertificates", "delete", "updateKeyPairIDAndLabel",
        "setCertificateLabel", "readCertificate", "readPublicKeyID", "sign", "signWithID"}) {
    module.failAt("C_FindObjectsInit", 1, CKR_OPERATION_ACTIVE);
    module.failAt("C_FindObjectsInit", 2, CKR_OPERATION_ACTIVE);
    EXPECT_NE("0", call(entryPoint(name))) << name;
    EXPECT_EQ(moduleCalls().find("object"), std::string::npos) << name;
    EXPECT_EQ(moduleCalls().find("key"), std::string::npos) << name;
  }
}

TEST_F(OddModule, ATokenThatChangesBetweenTwoPasses) {
  const auto certificate = mock::certificate("2", "B", "d");
  const auto key = mock::privateKey("2", "B");
  begin(State::kUser);
  module.addObject(0, mock::privateKey("1", "A"));
  module.addObject(0, mock::certificate("1", "A", "c"));
  atSecondSearch([&] { module.addObject(0, key); });
  EXPECT_EQ("{{00} {31} {41}}", call("readAllRSAPrivateKeys", {0}));
  atSecondSearch([&] { module.addObject(0, certificate); });
  EXPECT_EQ("{{00} {31} {41} {63}}", call("readAllCertificates", {0}));
  EXPECT_TRUE(traces().ends_with("RemainCount = 1\\nC_FindObjectsFinal = 0x0\\n"));
  atSecondSearch([&] { module.slots[0].objects.pop_back(); });
  EXPECT_EQ("{{05} {31} {41} {63} null null null}", call("readAllCertificates", {0}));
  atSecondSearch([&] { module.slots[0].objects.pop_back(); });
  EXPECT_EQ("{{05} {31} {41} null null}", call("readAllRSAPrivateKeys", {0}));
}

TEST_F(OddModule, LargeResultsGiveUpLocalReferences) {
  begin(State::kUser);
  for (int i = 0; i < 5; ++i) module.addObject(0, mock::certificate("1", "A", "c"));
  call("readAllCertificates", {0});
  EXPECT_EQ(std::count(record.begin(), record.end(), "DeleteLocalRef(byte[1])"), 0);
  for (int i = 0; i < 995; ++i) module.addObject(0, mock::certificate("1", "A", "c"));
  const std::string answer = call("readAllCertificates", {0});
  EXPECT_EQ(answer.size(), sizeof "{{00}}" - 1 + 1000 * (sizeof " {31} {41} {63}" - 1));
  EXPECT_LE(java.mostLocalReferences(), 6U);
}

TEST_F(OddModule, SlotsThatComeAndGo) {
  module.functions.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) -> CK_RV {
    *count = list == nullptr ? 3 : 0;
    return CKR_OK;
  };
  EXPECT_EQ("-3", call("init", {kModule}));
  EXPECT_TRUE(
      traces().ends_with("finalized (no slots)=0x0\\nFreeing pSlotList...\\nFreed pSlotList...\\nChecked "
                         "pSlotList...\\nFreed library...\\n"));
  module.functions.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID_PTR, CK_ULONG_PTR count) -> CK_RV {
    *count = ~0UL;
    return CKR_OK;
  };
  EXPECT_EQ("2", call("init", {kModule}));
  EXPECT_EQ(0, module.initializations);
  module.functions.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) -> CK_RV {
    *count = list == nullptr ? 1 : 1000;
    if (list != nullptr) *list = 0x11;
    return CKR_OK;
  };
  EXPECT_EQ("0", call("init", {kModule}));
  EXPECT_EQ("1", call("getSlotCount", {}));
}

TEST_F(OddModule, ListsThatAreNotThereOrNotTheSame) {
  module.list = nullptr;
  EXPECT_EQ("400", call("init", {kModule}));
  begin(State::kUser);
  module.acceptsSecondInitialize = true;
  EXPECT_EQ("0", call("init", {kModule}));
  EXPECT_EQ(module.callsOf("C_Finalize"), 0U);
  // What was initialised through another list is ended through it, and only then.
  module.freshListEachTime = true;
  module.failAt("C_Finalize", 1, CKR_DEVICE_ERROR);
  EXPECT_EQ("0", call("init", {kModule}));
  EXPECT_EQ(module.callsOf("C_Finalize"), 1U);
  module.failAt("C_Initialize", 1, CKR_DEVICE_ERROR);
  EXPECT_EQ("48", call("init", {kModule}));
  EXPECT_EQ(module.callsOf("C_Finalize"), 0U);
  for (auto& list : module.freshLists) list = {};
  EXPECT_EQ("0", call("isSessionOpen", {0})) << "through the first list";
}

TEST_F(OddModule, ALabelTakenForACString) {
  begin(State::kBound);
  static CK_UTF8CHAR behind = 'x';
  module.functions.C_InitToken = [](CK_SLOT_ID, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR label) -> CK_RV {
    behind = label[32];
    return CKR_OK;
  };
  call(entryPoint("initToken"));
  EXPECT_EQ(behind, '\0');
}

}  // namespace
