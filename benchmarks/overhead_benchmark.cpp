// What the library adds to the module's own work, in a real virtual machine and on a software token. Each
// iteration does the same work twice, through the library and by plain PKCS#11 calls, and the counter `ratio`
// is the one time divided by the other: machines are noisy, but both halves meet the same noise.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <p11-kit/pkcs11.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "com_calvenhor_vork_utils_Smartcard.h"

#define ENTRY(name) Java_com_calvenhor_vork_utils_Smartcard_##name##DLL

namespace {

constexpr int kCertificates = 100;

CK_FUNCTION_LIST* pkcs11 = nullptr;
CK_SLOT_ID slot = 0;
CK_SESSION_HANDLE session = 0;
JNIEnv* env = nullptr;

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "failed: %s\n", what);
  std::exit(EXIT_FAILURE);
}

jbyteArray bytes(const std::vector<jbyte>& content) {
  const auto length = static_cast<jsize>(content.size());
  jbyteArray array = env->NewByteArray(length);
  env->SetByteArrayRegion(array, 0, length, content.data());
  return array;
}

void startVirtualMachine() {
  JavaVM* machine = nullptr;
  JavaVMInitArgs arguments = {};
  arguments.version = JNI_VERSION_10;
  require(JNI_CreateJavaVM(&machine, reinterpret_cast<void**>(&env), &arguments) == JNI_OK,
          "the virtual machine");
}

/// A token of its own with a key pair and certificates, bound by the library and by plain calls beside it.
void makeToken(const std::filesystem::path& folder) {
  const std::string configuration = folder / "softhsm2.conf";
  std::ofstream(configuration) << "directories.tokendir = " << folder.string() << "\nlog.level = ERROR\n";
  setenv("SOFTHSM2_CONF", configuration.c_str(), 1);
  jstring module = env->NewStringUTF(SOFTHSM2_MODULE);
  jstring pin = env->NewStringUTF("1234");
  require(ENTRY(init)(env, nullptr, module) == CKR_OK, "initDLL");
  require(ENTRY(initToken)(env, nullptr, 0, pin, 4) == CKR_OK, "initTokenDLL");
  ENTRY(finalize)(env, nullptr);
  ENTRY(init)(env, nullptr, module);
  require(ENTRY(openSession)(env, nullptr, 0) == CKR_OK, "openSessionDLL");
  ENTRY(login)(env, nullptr, 0, pin, CKU_SO);
  ENTRY(initUserPIN)(env, nullptr, 0, pin, 4);
  ENTRY(logout)(env, nullptr, 0);
  require(ENTRY(login)(env, nullptr, 0, pin, CKU_USER) == CKR_OK, "loginDLL");
  jbyteArray id = bytes({1});
  ENTRY(generateKeyPair)(env, nullptr, 0, 2048, bytes({1, 0, 1}), id, id);
  jbyteArray value = bytes(std::vector<jbyte>(1000, 0x30));
  for (int i = 0; i < kCertificates; ++i) {
    require(ENTRY(writeCertificate)(env, nullptr, 0, value, id, id, id, id, id) == CKR_OK,
            "writeCertificateDLL");
  }

  const auto getFunctionList =
      reinterpret_cast<CK_C_GetFunctionList>(dlsym(dlopen(SOFTHSM2_MODULE, RTLD_NOW), "C_GetFunctionList"));
  require(getFunctionList(&pkcs11) == CKR_OK, "C_GetFunctionList");
  std::array<CK_SLOT_ID, 8> slots = {};
  CK_ULONG count = slots.size();
  pkcs11->C_GetSlotList(CK_FALSE, slots.data(), &count);
  slot = slots.front();
  require(
      pkcs11->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session) == CKR_OK,
      "C_OpenSession");
}

void signPlainly() {
  CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE wanted = {CKA_CLASS, &privateKey, sizeof privateKey};
  CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
  CK_OBJECT_HANDLE key = 0;
  CK_ULONG count = 0;
  std::array<CK_BYTE, 1024> signature;
  CK_ULONG length = signature.size();
  std::array<CK_BYTE, 51> data = {};
  pkcs11->C_FindObjectsInit(session, &wanted, 1);
  pkcs11->C_FindObjects(session, &key, 1, &count);
  pkcs11->C_FindObjectsFinal(session);
  pkcs11->C_SignInit(session, &mechanism, key);
  require(pkcs11->C_Sign(session, data.data(), data.size(), signature.data(), &length) == CKR_OK, "C_Sign");
}

void listPlainly() {
  CK_CERTIFICATE_TYPE x509 = CKC_X_509;
  CK_ATTRIBUTE wanted = {CKA_CERTIFICATE_TYPE, &x509, sizeof x509};
  CK_OBJECT_HANDLE certificate = 0;
  CK_ULONG count = 0;
  for (const bool reading : {false, true}) {
    pkcs11->C_FindObjectsInit(session, &wanted, 1);
    while (pkcs11->C_FindObjects(session, &certificate, 1, &count) == CKR_OK && count == 1) {
      if (!reading) continue;
      std::array<CK_ATTRIBUTE, 3> attributes = {
          {{CKA_VALUE, nullptr, 0}, {CKA_ID, nullptr, 0}, {CKA_LABEL, nullptr, 0}}};
      pkcs11->C_GetAttributeValue(session, certificate, attributes.data(), attributes.size());
      std::array<std::vector<CK_BYTE>, 3> values;
      for (std::size_t i = 0; i < values.size(); ++i) {
        values[i].resize(attributes[i].ulValueLen);
        attributes[i].pValue = values[i].data();
      }
      pkcs11->C_GetAttributeValue(session, certificate, attributes.data(), attributes.size());
    }
    pkcs11->C_FindObjectsFinal(session);
  }
}

template <class Library, class Plain>
void compare(benchmark::State& state, Library library, Plain plain) {
  using Clock = std::chrono::steady_clock;
  Clock::duration ofLibrary = {};
  Clock::duration ofPlain = {};
  for (auto _ : state) {
    const auto start = Clock::now();
    plain();
    const auto middle = Clock::now();
    library();
    ofLibrary += Clock::now() - middle;
    ofPlain += middle - start;
  }
  state.counters["ratio"] = static_cast<double>(ofLibrary.count()) / static_cast<double>(ofPlain.count());
}

void sign(benchmark::State& state) {
  jbyteArray data = bytes(std::vector<jbyte>(51));
  compare(
      state, [&] { env->DeleteLocalRef(ENTRY(sign)(env, nullptr, 0, data)); }, signPlainly);
}
BENCHMARK(sign)->Unit(benchmark::kMicrosecond);

void listCertificates(benchmark::State& state) {
  compare(
      state, [] { env->DeleteLocalRef(ENTRY(readAllCertificates)(env, nullptr, 0)); }, listPlainly);
}
BENCHMARK(listCertificates)->Unit(benchmark::kMicrosecond);

void askSlot(benchmark::State& state) {
  CK_SLOT_INFO information;
  compare(
      state, [] { benchmark::DoNotOptimize(ENTRY(getSlotInfo)(env, nullptr, 0)); },
      [&information] { pkcs11->C_GetSlotInfo(slot, &information); });
}
BENCHMARK(askSlot);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::string folder = std::filesystem::temp_directory_path() / "smartcard-benchmark-XXXXXX";
  require(mkdtemp(folder.data()) != nullptr, "a temporary folder");
  startVirtualMachine();

  // The traces are part of the work, but not of the report.
  std::fflush(stdout);
  const int report = dup(STDOUT_FILENO);
  dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
  makeToken(folder);
  std::ofstream out("/dev/fd/" + std::to_string(report));
  benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
  reporter.SetOutputStream(&out);
  benchmark::RunSpecifiedBenchmarks(&reporter);

  ENTRY(finalize)(env, nullptr);
  std::filesystem::remove_all(folder);
}
