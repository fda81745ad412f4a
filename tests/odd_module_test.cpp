#include <algorithm>
#include <cstdint>

#include "ground.h"

namespace {

using OddModule = Ground;

// JNI promises room for 16 local references, and a token may hold any number of certificates.
TEST_F(OddModule, HoldsMoreCertificatesThanThereAreLocalReferences) {
  begin(State::kUser);
  for (int i = 0; i < 5; ++i) module.addObject(0, mock::certificate("1", "A", "c"));
  call("readAllCertificates", {0});
  EXPECT_EQ(std::count(record.begin(), record.end(), "DeleteLocalRef(byte[1])"), 0);
  for (int i = 0; i < 995; ++i) module.addObject(0, mock::certificate("1", "A", "c"));
  const std::string answer = call("readAllCertificates", {0});
  EXPECT_EQ(answer.size(), sizeof "{{00}}" - 1 + 1000 * (sizeof " {31} {41} {63}" - 1));
  EXPECT_LE(java.mostLocalReferences(), 6U);
}

TEST_F(OddModule, TakesALabelForACString) {
  begin(State::kBound);
  static CK_UTF8CHAR behind = 'x';
  module.functions.C_InitToken = [](CK_SLOT_ID, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR label) -> CK_RV {
    behind = label[32];
    return CKR_OK;
  };
  call(entryPoint("initToken"));
  EXPECT_EQ(behind, '\0');
}

TEST_F(OddModule, GetsTheBufferWhoseAddressIsTraced) {
  begin(State::kUser, true);
  static CK_BYTE_PTR given = nullptr;
  module.functions.C_Sign = [](CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR signature,
                               CK_ULONG_PTR) -> CK_RV {
    given = signature;
    return CKR_DEVICE_ERROR;
  };
  EXPECT_EQ("{30}", call(entryPoint("signWithID")));
  EXPECT_EQ(std::stoul(buffer_, nullptr, 16), reinterpret_cast<std::uintptr_t>(given) & 0xffff'ffffU);
}

}  // namespace
