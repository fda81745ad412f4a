// PKCS#11 result codes by name, and a comparison that prints them.
#pragma once

#include <gtest/gtest.h>
#include <p11-kit/pkcs11.h>

#include <map>
#include <sstream>
#include <string>

/// A CK_RV, or a result of an entry point, as `CKR_PIN_INCORRECT (0xa0)`; the library's own codes as -1.
template <class Code>
std::string ckrName(Code code) {
#define NAMED(name) \
  { CKR_##name, "CKR_" #name }
  // clang-format off
  static const std::map<CK_RV, const char*> names = {
      NAMED(OK), NAMED(HOST_MEMORY), NAMED(SLOT_ID_INVALID), NAMED(GENERAL_ERROR), NAMED(ARGUMENTS_BAD),
      NAMED(ATTRIBUTE_READ_ONLY), NAMED(ATTRIBUTE_SENSITIVE), NAMED(ATTRIBUTE_TYPE_INVALID),
      NAMED(ATTRIBUTE_VALUE_INVALID), NAMED(DATA_LEN_RANGE), NAMED(DEVICE_ERROR), NAMED(DEVICE_REMOVED),
      NAMED(FUNCTION_NOT_SUPPORTED), NAMED(KEY_HANDLE_INVALID), NAMED(KEY_SIZE_RANGE),
      NAMED(KEY_TYPE_INCONSISTENT), NAMED(KEY_FUNCTION_NOT_PERMITTED), NAMED(MECHANISM_INVALID),
      NAMED(OBJECT_HANDLE_INVALID), NAMED(OPERATION_ACTIVE), NAMED(OPERATION_NOT_INITIALIZED),
      NAMED(PIN_INCORRECT), NAMED(PIN_LEN_RANGE), NAMED(SESSION_HANDLE_INVALID),
      NAMED(SESSION_PARALLEL_NOT_SUPPORTED), NAMED(SESSION_READ_ONLY), NAMED(SESSION_EXISTS),
      NAMED(TEMPLATE_INCOMPLETE), NAMED(TEMPLATE_INCONSISTENT), NAMED(TOKEN_NOT_PRESENT),
      NAMED(TOKEN_WRITE_PROTECTED), NAMED(USER_ALREADY_LOGGED_IN), NAMED(USER_NOT_LOGGED_IN),
      NAMED(USER_PIN_NOT_INITIALIZED), NAMED(USER_TYPE_INVALID), NAMED(USER_ANOTHER_ALREADY_LOGGED_IN),
      NAMED(BUFFER_TOO_SMALL), NAMED(CRYPTOKI_NOT_INITIALIZED), NAMED(CRYPTOKI_ALREADY_INITIALIZED),
      NAMED(FUNCTION_REJECTED)};
  // clang-format on
#undef NAMED
  if (static_cast<long>(code) < 0) return std::to_string(static_cast<long>(code));
  const auto found = names.find(static_cast<CK_RV>(code));
  std::ostringstream out;
  out << (found == names.end() ? "unnamed code" : found->second) << " (0x" << std::hex;
  out << static_cast<CK_RV>(code) << ")";
  return out.str();
}

template <class Expected, class Actual>
testing::AssertionResult isSameCkr(const char*, const char* expression, Expected expected, Actual actual) {
  if (static_cast<CK_RV>(expected) == static_cast<CK_RV>(actual)) return testing::AssertionSuccess();
  return testing::AssertionFailure() << expression << " is " << ckrName(actual) << ", not "
                                     << ckrName(expected);
}

#define EXPECT_CKR(expected, actual) EXPECT_PRED_FORMAT2(isSameCkr, expected, actual)
#define ASSERT_CKR(expected, actual) ASSERT_PRED_FORMAT2(isSameCkr, expected, actual)
