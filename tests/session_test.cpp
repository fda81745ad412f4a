#include "ground.h"

namespace {

using Sessions = Ground;
using Login = Ground;

TEST_F(Sessions, OpensDescribesAndClosesTheSessionOfASlot) {
  bind();
  EXPECT_EQ(-1, call(ENTRY(isSessionOpen), 0));
  EXPECT_EQ(calls(), "");
  EXPECT_EQ("[179 -1 -1 -1]", shown(call(ENTRY(getSessionInfo), 0)));
  EXPECT_EQ(calls(), "C_GetSessionInfo(session 0x0)\n");

  EXPECT_CKR(CKR_OK, call(ENTRY(openSession), 0));
  EXPECT_EQ(calls(), "C_OpenSession(slot 0x11, flags 6)\n");
  EXPECT_EQ(traces, "Slot 0 deneniyor...Open sess\xc3\xbeon result = 0x0\n");
  EXPECT_CKR(CKR_OK, call(ENTRY(isSessionOpen), 0));
  module.slots[0].deviceError = 0x1'2345'6789;
  EXPECT_EQ("[2 6 17 591751049]", shown(call(ENTRY(getSessionInfo), 0)));
  EXPECT_EQ(jniCalls(), "NewIntArray(4) SetIntArrayRegion(int[4], 0, 4)");
  EXPECT_EQ(traces, "");

  EXPECT_CKR(CKR_TOKEN_NOT_PRESENT, call(ENTRY(openSession), 1));
  EXPECT_EQ(traces, "Slot 1 deneniyor...Open sess\xc3\xbeon result = 0xe0\n");
  EXPECT_EQ(-1, call(ENTRY(isSessionOpen), 1));

  // The result is that of the last slot, and a stale handle is the module's to refuse.
  EXPECT_CKR(CKR_TOKEN_NOT_PRESENT, call(ENTRY(closeSession), 0));
  EXPECT_EQ(calls(), "C_CloseSession(S)\nC_CloseAllSessions(slot 0x11)\nC_CloseAllSessions(slot 0x22)\n");
  EXPECT_CKR(CKR_SESSION_HANDLE_INVALID, call(ENTRY(isSessionOpen), 0));
  EXPECT_EQ("[179 -1 -1 -1]", shown(call(ENTRY(getSessionInfo), 0)));
}

TEST_F(Sessions, ASecondOpeningReplacesTheHandleAndBothAreClosed) {
  bindAndOpen();
  EXPECT_CKR(CKR_OK, call(ENTRY(openSession), 0));
  EXPECT_EQ(module.openSessions(), 2U);
  call(ENTRY(isSessionOpen), 0);
  EXPECT_EQ(calls(), "C_GetSessionInfo(session 0x7e0000000502)\n");
  module.failAt("C_OpenSession", 1, CKR_DEVICE_ERROR);
  EXPECT_CKR(CKR_DEVICE_ERROR, call(ENTRY(openSession), 0));
  EXPECT_CKR(CKR_OK, call(ENTRY(isSessionOpen), 0));
  call(ENTRY(closeSession), 0);
  EXPECT_EQ(module.openSessions(), 0U);
}

TEST_F(Login, PassesThePinAndNoMore) {
  bind();
  EXPECT_EQ(-1, call(ENTRY(login), 0, string("1234"), CKU_USER));
  EXPECT_EQ(traces, "Login started...\n");
  EXPECT_EQ(jniCalls(), "");

  call(ENTRY(openSession), 0);
  EXPECT_CKR(CKR_PIN_INCORRECT, call(ENTRY(login), 0, string("4321"), CKU_USER));
  EXPECT_EQ(traces, "Login started...\nLogin result = 0xa0\n");
  EXPECT_CKR(CKR_OK, call(ENTRY(login), 0, string("1234"), CKU_USER));
  EXPECT_EQ(calls(), "C_Login(S, user 1, PIN \"1234\")\n");
  EXPECT_EQ(jniCalls(), "GetStringUTFChars(string) ReleaseStringUTFChars(string)");
  EXPECT_CKR(CKR_OK, call(ENTRY(logout), 0));
  EXPECT_EQ(traces, "");
  EXPECT_CKR(CKR_USER_NOT_LOGGED_IN, call(ENTRY(logout), 0));

  module.slots[0].token.flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
  EXPECT_CKR(CKR_OK, call(ENTRY(login), 0, nullptr, CKU_SO));
  EXPECT_EQ(calls(), "C_Login(S, user 0, PIN null)\n");
  EXPECT_EQ(traces, "Login started...\n");
}

TEST_F(Login, ChangesAPinWithTheLengthsGiven) {
  bindAndLogin();
  const jstring oldPin = java.string("old", "1234");
  const jstring newPin = java.string("new", "56789");
  EXPECT_CKR(CKR_OK, call(ENTRY(changePIN), 0, oldPin, 4, newPin, 3));
  EXPECT_EQ(calls(), "C_SetPIN(S, old PIN \"1234\", new PIN \"567\")\n");
  EXPECT_EQ(
      jniCalls(),
      "GetStringUTFChars(old) GetStringUTFChars(new) ReleaseStringUTFChars(new) ReleaseStringUTFChars(old)");
  EXPECT_EQ(module.slots[0].userPin, "567");

  for (const auto& [oldLength, newLength] :
       std::vector<std::pair<jlong, jlong>>{{5, 1}, {-1, 1}, {1, 6}, {1, -1}}) {
    EXPECT_CKR(CKR_PIN_LEN_RANGE, call(ENTRY(changePIN), 0, oldPin, oldLength, newPin, newLength));
    EXPECT_EQ(calls(), "");
  }
  EXPECT_CKR(CKR_ARGUMENTS_BAD, call(ENTRY(changePIN), 0, oldPin, 4, nullptr, 0));
  EXPECT_EQ(jniCalls(), "");
}

TEST_F(Login, InitialisesATokenAndItsUserPin) {
  bind();
  const std::string label = "YENIKART" + std::string(24, ' ');
  // Some modules take the label for a C string: behind its 32 bytes there must be a NUL.
  static CK_UTF8CHAR behind = 'x';
  static CK_C_InitToken genuine = module.genuine.C_InitToken;
  module.functions.C_InitToken = [](CK_SLOT_ID slot, CK_UTF8CHAR_PTR pin, CK_ULONG length,
                                    CK_UTF8CHAR_PTR name) {
    behind = name[32];
    return genuine(slot, pin, length, name);
  };
  EXPECT_CKR(CKR_OK, call(ENTRY(initToken), 0, string("12345678"), 8));
  EXPECT_EQ(calls(), "C_InitToken(slot 0x11, PIN \"12345678\", label \"" + label + "\")\n");
  EXPECT_EQ(behind, '\0');
  EXPECT_CKR(CKR_PIN_LEN_RANGE, call(ENTRY(initToken), 0, string("12345678"), 9));
  EXPECT_EQ(-1, call(ENTRY(initToken), 2, string("12345678"), 8));

  EXPECT_EQ(-1, call(ENTRY(initUserPIN), 0, string("987654"), 4));
  call(ENTRY(openSession), 0);
  EXPECT_CKR(CKR_USER_NOT_LOGGED_IN, call(ENTRY(initUserPIN), 0, string("987654"), 4));
  call(ENTRY(login), 0, string("12345678"), CKU_SO);
  EXPECT_CKR(CKR_OK, call(ENTRY(initUserPIN), 0, string("987654"), 4));
  EXPECT_EQ(calls(), "C_InitPIN(S, PIN \"9876\")\n");
  EXPECT_CKR(CKR_PIN_LEN_RANGE, call(ENTRY(initUserPIN), 0, string("987654"), 7));
  EXPECT_EQ(calls(), "");
}

}  // namespace
