// Lets Java tests control the mock module. The functions are linked into the module: Java loads it with
// System.load, which keeps its state alive, and the library then uses the same instance.
#include "../mock_module.h"
#include "MockTest.h"

JNIEXPORT void JNICALL Java_MockTest_reset(JNIEnv*, jclass) {
  mock::Module& module = *mockModule();
  module.reset();
  module.slots.resize(1);
  module.slots[0].userPin = module.slots[0].soPin = "1";
}

JNIEXPORT void JNICALL Java_MockTest_failAt(JNIEnv* env, jclass, jstring function, jint nth, jlong code) {
  const char* name = env->GetStringUTFChars(function, nullptr);
  mockModule()->failAt(name, static_cast<std::size_t>(nth), static_cast<CK_RV>(code));
  env->ReleaseStringUTFChars(function, name);
}

JNIEXPORT void JNICALL Java_MockTest_addSlot(JNIEnv*, jclass) {
  mock::Slot second(0x22, CKF_TOKEN_PRESENT);
  second.userPin = "2";
  mockModule()->slots.push_back(second);
}

JNIEXPORT void JNICALL Java_MockTest_reuseHandles(JNIEnv*, jclass) {
  mockModule()->nextSession = mock::Module(mockModule()->genuine).nextSession;
}

JNIEXPORT jlong JNICALL Java_MockTest_liveObjects(JNIEnv*, jclass) {
  const mock::Module& module = *mockModule();
  return static_cast<jlong>(module.slots[0].objects.size() + module.sessions.size() + module.searches.size());
}

JNIEXPORT jstring JNICALL Java_MockTest_takeCalls(JNIEnv* env, jclass) {
  std::string names;
  for (const auto& line : mockModule()->log) names += (names.empty() ? "" : " ") + mock::nameOf(line);
  mockModule()->log.clear();
  mockModule()->returnedHandles.clear();
  return env->NewStringUTF(names.c_str());
}
