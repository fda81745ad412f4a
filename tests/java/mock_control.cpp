// The mock module's reins for tests in a real virtual machine. They are linked into the module itself:
// System.load of it keeps its state alive, and what Java sees is what the library sees when it loads the same
// path.
#include "MockModule.h"
#include "mock_module.h"

namespace {

constexpr const char* kName = "mock";  // every value that a test may search for

std::string text(JNIEnv* env, jstring string) {
  const char* characters = env->GetStringUTFChars(string, nullptr);
  std::string copy = characters;
  env->ReleaseStringUTFChars(string, characters);
  return copy;
}

}  // namespace

JNIEXPORT void JNICALL Java_MockModule_reset(JNIEnv*, jclass) {
  mock::Module& module = *mockModule();
  module.reset();
  module.slots.resize(1);
  module.slots[0].userPin = module.slots[0].soPin = "1234";
  module.slotEvents = {module.slots[0].id};

  mock::Attributes certificate = mock::certificate(kName, kName, kName);
  for (const auto type : {CKA_SUBJECT, CKA_ISSUER, CKA_SERIAL_NUMBER}) certificate[type] = mock::bytes(kName);
  module.addObject(0, certificate);
  module.addObject(0, mock::publicKey(kName, kName));
  module.addObject(0, mock::privateKey(kName, kName));
  module.addObject(0, mock::data(kName));
}

JNIEXPORT void JNICALL Java_MockModule_addIdentities(JNIEnv*, jclass, jint count) {
  for (jint k = 1; k <= count; ++k) {
    const std::string id = "id " + std::to_string(k);
    const std::string label = "label of " + id;
    mockModule()->addObject(0, mock::certificate(id, label, kName));
    mockModule()->addObject(0, mock::publicKey(id, label));
    mockModule()->addObject(0, mock::privateKey(id, label));
  }
}

JNIEXPORT void JNICALL Java_MockModule_failAt(JNIEnv* env, jclass, jstring function, jint nth, jlong code) {
  mockModule()->failAt(text(env, function), static_cast<std::size_t>(nth), static_cast<CK_RV>(code));
}

JNIEXPORT jstring JNICALL Java_MockModule_takeCalls(JNIEnv* env, jclass) {
  const std::string names = mockModule()->names();
  mockModule()->log.clear();
  mockModule()->yielded.clear();
  return env->NewStringUTF(names.c_str());
}

JNIEXPORT jlong JNICALL Java_MockModule_activeSearches(JNIEnv*, jclass) {
  return static_cast<jlong>(mockModule()->activeSearches());
}

JNIEXPORT jlong JNICALL Java_MockModule_openSessions(JNIEnv*, jclass) {
  return static_cast<jlong>(mockModule()->openSessions());
}

JNIEXPORT jlong JNICALL Java_MockModule_objects(JNIEnv*, jclass) {
  return static_cast<jlong>(mockModule()->slots[0].objects.size());
}
