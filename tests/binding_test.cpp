#include <dlfcn.h>

#include "ground.h"

namespace {

class Binding : public Ground {
 protected:
  const std::string start = std::string("INITIALIZE start\n") + kModule + "\n";
};

TEST_F(Binding, LoadsInitialisesAndListsAllSlots) {
  EXPECT_EQ(0, call(ENTRY(getSlotCount)));
  EXPECT_CKR(CKR_OK, bind());
  EXPECT_EQ(module.log, (std::vector<std::string>{"C_GetFunctionList()", "C_Initialize(null)",
                                                  "C_GetSlotList(tokenPresent 0, null)",
                                                  "C_GetSlotList(tokenPresent 0, room 2)"}));
  EXPECT_EQ(java.log,
            (std::vector<std::string>{"GetStringUTFChars(string)", "ReleaseStringUTFChars(string)"}));
  EXPECT_EQ(traces, start +
                        "Got fuction list\nInitialized=0x0\nSlot_count = 2\nBefore slots malloc\n"
                        "After slots malloc\nGet Slot List = 0x0\n");
  EXPECT_EQ(2, call(ENTRY(getSlotCount)));

  module.failAt("C_Finalize", 1, CKR_DEVICE_ERROR);
  EXPECT_CKR(CKR_DEVICE_ERROR, call(ENTRY(finalize)));
  EXPECT_EQ(module.names(), "C_Finalize");
  EXPECT_EQ(2, call(ENTRY(getSlotCount)));
  EXPECT_CKR(CKR_CRYPTOKI_NOT_INITIALIZED, call(ENTRY(finalize)));
  EXPECT_EQ(module.names(), "");
}

TEST_F(Binding, RefusesWhatIsNoModule) {
  EXPECT_EQ(-1, bind("/nowhere/module.so"));
  EXPECT_EQ(traces, "INITIALIZE start\n/nowhere/module.so\nError: DLL not found");
  EXPECT_EQ(-2, bind(NOT_A_MODULE));
  EXPECT_EQ(traces, "INITIALIZE start\n" NOT_A_MODULE "\nError: C_GetFunctionList not found in DLL ");
  EXPECT_CKR(CKR_ARGUMENTS_BAD, call(ENTRY(init), nullptr));
  EXPECT_CKR(CKR_CRYPTOKI_NOT_INITIALIZED, call(ENTRY(finalize)));
}

TEST_F(Binding, UndoesWhatItDidWhenAStepFails) {
  const std::string got = "Got fuction list\n";
  const std::string initialised = got + "Initialized=0x0\n";
  const std::string counted = initialised + "Slot_count = 2\nBefore slots malloc\nAfter slots malloc\n";
  const struct {
    const char* function;
    std::size_t nth;
    std::string traces;
    const char* calls;
  } failures[] = {
      {"C_GetFunctionList", 1, "", "C_GetFunctionList"},
      {"C_Initialize", 1, got, "C_GetFunctionList C_Initialize"},
      {"C_GetSlotList", 1, initialised + "finalized (getslotlist err)=0x31\n",
       "C_GetFunctionList C_Initialize C_GetSlotList C_Finalize"},
      {"C_GetSlotList", 2, counted + "Get Slot List = 0x150\n",
       "C_GetFunctionList C_Initialize C_GetSlotList C_GetSlotList C_Finalize"},
  };
  for (const auto& failure : failures) {
    SCOPED_TRACE(failure.calls);
    module.failAt(failure.function, failure.nth, CKR_BUFFER_TOO_SMALL);
    module.failAt("C_Finalize", 1, CKR_DEVICE_MEMORY);
    EXPECT_CKR(CKR_BUFFER_TOO_SMALL, bind());
    EXPECT_EQ(module.names(), failure.calls);
    EXPECT_EQ(traces, start + failure.traces);
    EXPECT_CKR(CKR_CRYPTOKI_NOT_INITIALIZED, call(ENTRY(finalize)));
    EXPECT_EQ(-1, call(ENTRY(openSession), 0));
    module.reset();
  }
}

TEST_F(Binding, RefusesAModuleWithoutSlots) {
  const std::string checked = "Checked pSlotList...\nFreed library...\n";
  module.slots.clear();
  EXPECT_EQ(-3, bind());
  EXPECT_EQ(traces, start + "Got fuction list\nInitialized=0x0\nSlot_count = 0\nfinalized (no slots)=0x0\n" +
                        checked);
  EXPECT_EQ(0, call(ENTRY(getSlotCount)));

  // All slots are gone when they are to be listed.
  module.reset();
  module.functions.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) -> CK_RV {
    *count = list == nullptr ? 3 : 0;
    return CKR_OK;
  };
  EXPECT_EQ(-3, bind());
  EXPECT_TRUE(
      traces.ends_with("finalized (no slots)=0x0\nFreeing pSlotList...\nFreed pSlotList...\n" + checked));
  EXPECT_EQ(0, module.initializations);
}

TEST_F(Binding, BelievesNoSlotCountBeyondItsRoom) {
  module.functions.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) -> CK_RV {
    *count = list == nullptr ? 1 : 1000;
    if (list != nullptr) *list = 0x11;
    return CKR_OK;
  };
  EXPECT_CKR(CKR_OK, bind());
  EXPECT_EQ(1, call(ENTRY(getSlotCount)));
  EXPECT_EQ(-1, call(ENTRY(openSession), 1));
  call(ENTRY(finalize));

  module.functions.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID_PTR, CK_ULONG_PTR count) -> CK_RV {
    *count = ~0UL;
    return CKR_OK;
  };
  EXPECT_CKR(CKR_HOST_MEMORY, bind());
  EXPECT_EQ(0, module.initializations);
}

TEST_F(Binding, KeepsEverythingWhenBoundAgain) {
  bindAndLogin();
  EXPECT_CKR(CKR_CRYPTOKI_ALREADY_INITIALIZED, bind());
  EXPECT_EQ(module.names(), "C_GetFunctionList C_Initialize");
  EXPECT_EQ(traces, start + "Got fuction list\n");

  module.acceptsSecondInitialize = true;
  EXPECT_CKR(CKR_OK, bind());
  EXPECT_EQ(module.names(), "C_GetFunctionList C_Initialize");
  EXPECT_CKR(CKR_OK, call(ENTRY(isSessionOpen), 0));

  // Initialised through another list: ended through that list, and the first one stays in use.
  module.freshListEachTime = true;
  EXPECT_CKR(CKR_OK, bind());
  EXPECT_EQ(module.names(), "C_GetFunctionList C_Initialize C_Finalize");
  ASSERT_EQ(module.freshLists.size(), 1U);
  module.freshLists.front() = {};
  EXPECT_CKR(CKR_OK, call(ENTRY(isSessionOpen), 0));

  EXPECT_EQ(-1, bind("/nowhere/module.so"));
  EXPECT_EQ(-2, bind(NOT_A_MODULE));
  EXPECT_CKR(CKR_CRYPTOKI_ALREADY_INITIALIZED, bind(OTHER_MODULE));
  EXPECT_CKR(CKR_OK, call(ENTRY(isSessionOpen), 0));
  EXPECT_EQ(2, call(ENTRY(getSlotCount)));
}

TEST_F(Binding, WorksWithoutAListOrAFunction) {
  module.list = nullptr;
  EXPECT_CKR(CKR_CRYPTOKI_NOT_INITIALIZED, bind());
  module.list = &module.functions;
  module.functions.C_Initialize = nullptr;
  EXPECT_CKR(CKR_FUNCTION_NOT_SUPPORTED, bind());
  module.functions.C_Initialize = module.genuine.C_Initialize;
  EXPECT_CKR(CKR_OK, bind());
  module.functions.C_OpenSession = nullptr;
  EXPECT_CKR(CKR_FUNCTION_NOT_SUPPORTED, call(ENTRY(openSession), 0));
  EXPECT_EQ(traces, "Slot 0 deneniyor...Open sess\xc3\xbeon result = 0x54\n");
}

// A module that hangs or crashes must show where.
TEST_F(Binding, TracesHaveLeftTheProcessWhenTheModuleRuns) {
  Output output;
  std::string atInitialize;
  module.onCall = [&](const std::string& name) {
    if (name == "C_Initialize") atInitialize = output.written();
  };
  ENTRY(init)(java.env(), nullptr, string(kModule));
  EXPECT_EQ(atInitialize, start + "Got fuction list\n");

  std::string atCreation;
  module.onCall = [&](const std::string& name) {
    if (name == "C_CreateObject") atCreation = output.written();
  };
  ENTRY(openSession)(java.env(), nullptr, 0);
  ENTRY(writePublicKey)(java.env(), nullptr, 0, bytes("n"), bytes("e"), bytes("id"), bytes("label"));
  EXPECT_TRUE(atCreation.ends_with("CreateObject(Public Key)...")) << atCreation;
}

}  // namespace
