#include "ground.h"

namespace {

using Information = Ground;

TEST_F(Information, ReadsFlagsAndFieldsOfSlotsAndTokens) {
  bind();
  EXPECT_EQ(CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE, call(ENTRY(getSlotInfo), 0));
  EXPECT_EQ(calls(), "C_GetSlotInfo(slot 0x11)\n");
  module.slots[0].info.flags = 0x1'8000'0001;
  EXPECT_EQ(-0x7fffffffL, call(ENTRY(getSlotInfo), 0));
  module.slots[0].token.flags = 0x1'8000'0001;
  EXPECT_EQ(0x1'8000'0001, call(ENTRY(getTokenInfo), 0));

  EXPECT_EQ(text("Mock reader with a description o"), java.bytesOf(call(ENTRY(readSlotDescription), 0)));
  EXPECT_EQ(jniCalls(), "NewByteArray(32) SetByteArrayRegion(byte[32], 0, 32)");
  EXPECT_EQ(text("Mock token" + std::string(22, ' ')), java.bytesOf(call(ENTRY(readCardLabel), 0)));
  EXPECT_EQ(text("0123456789abcdef"), java.bytesOf(call(ENTRY(readCardSerialNumber), 0)));
  EXPECT_EQ(calls(), "C_GetTokenInfo(slot 0x11)\n");
  EXPECT_EQ(traces, "");
}

TEST_F(Information, FailsInEachFormOfItsOwn) {
  bind();
  EXPECT_EQ(0, call(ENTRY(getTokenInfo), 1));
  EXPECT_EQ("{e0}", shown(call(ENTRY(readCardLabel), 1)));
  EXPECT_EQ("{e0}", shown(call(ENTRY(readCardSerialNumber), 1)));
  EXPECT_EQ("{e0}", shown(call(ENTRY(readSlotDescription), 2)))
      << "what the last call of any entry point left";
  EXPECT_EQ(calls(), "");
  module.failAt("C_GetSlotInfo", 1, CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(-1, call(ENTRY(getSlotInfo), 0));
  EXPECT_EQ("{50}", shown(call(ENTRY(readSlotDescription), -1)));
  module.failAt("C_GetSlotInfo", 1, CKR_FUNCTION_REJECTED);
  EXPECT_EQ("{00}", shown(call(ENTRY(readSlotDescription), 0)));
  EXPECT_EQ("{03}", shown(call(ENTRY(readCardLabel), 2)));
  EXPECT_EQ("{03}", shown(call(ENTRY(readCardSerialNumber), -1)));
  EXPECT_EQ(calls(), "");
}

TEST_F(Information, WaitsForASlotEvent) {
  bind();
  EXPECT_CKR(CKR_FUNCTION_NOT_SUPPORTED, call(ENTRY(waitForSlotEvent), 1));
  EXPECT_EQ(calls(), "C_WaitForSlotEvent(flags 0)\n");
  module.slotEvents = {0x22};
  EXPECT_CKR(CKR_OK, call(ENTRY(waitForSlotEvent), -5));
}

TEST_F(Information, ListsMechanisms) {
  bind();
  EXPECT_EQ("[0 1 6 -2147483641]", shown(call(ENTRY(getSupportedMechanismList), 0)));
  EXPECT_EQ(calls(), "C_GetMechanismList(slot 0x11, null)\nC_GetMechanismList(slot 0x11, room 4)\n");
  EXPECT_EQ("[]", shown(call(ENTRY(getSupportedMechanismList), 1)));
  EXPECT_EQ("[]", shown(call(ENTRY(getSupportedMechanismList), 2)));
  EXPECT_EQ(calls(), "");
  module.failAt("C_GetMechanismList", 2, CKR_DEVICE_ERROR);
  EXPECT_EQ("[0 0 0 0]", shown(call(ENTRY(getSupportedMechanismList), 0))) << "as many as were reported";
  module.slots[0].mechanisms.clear();
  EXPECT_EQ("[]", shown(call(ENTRY(getSupportedMechanismList), 0)));
  EXPECT_EQ(calls(), "C_GetMechanismList(slot 0x11, null)\nC_GetMechanismList(slot 0x11, room 0)\n");

  // A list that grows between the calls, and counts that cannot be.
  module.functions.C_GetMechanismList = [](CK_SLOT_ID, CK_MECHANISM_TYPE_PTR list,
                                           CK_ULONG_PTR count) -> CK_RV {
    *count = list == nullptr ? 1 : 9;
    if (list != nullptr) *list = 7;
    return CKR_OK;
  };
  EXPECT_EQ("[7]", shown(call(ENTRY(getSupportedMechanismList), 0)));
  module.functions.C_GetMechanismList = [](CK_SLOT_ID, CK_MECHANISM_TYPE_PTR, CK_ULONG_PTR count) -> CK_RV {
    *count = 1UL << 31U;
    return CKR_OK;
  };
  EXPECT_EQ("[]", shown(call(ENTRY(getSupportedMechanismList), 0)));
}

TEST_F(Information, DescribesAMechanism) {
  bind();
  EXPECT_EQ(CKF_HW | CKF_ENCRYPT | CKF_DECRYPT | CKF_SIGN | CKF_VERIFY,
            call(ENTRY(getMechanismInfo), 0, CKM_RSA_PKCS));
  EXPECT_EQ(-1, call(ENTRY(getMechanismInfo), 0, 0x1'0000'0001));
  EXPECT_EQ(calls(), "C_GetMechanismInfo(slot 0x11, mechanism 0x100000001)\n");
  EXPECT_EQ(-1, call(ENTRY(getMechanismInfo), 2, CKM_RSA_PKCS));
}

}  // namespace
