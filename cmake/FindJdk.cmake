# Finds a JDK of version 17 or later. CMake's own modules miss some JDKs if JAVA_HOME is not set. JDKS lists all JDKs
# found, each as "HOME VERSION".
if(NOT JAVA_HOME)
  set(JAVA_HOME "$ENV{JAVA_HOME}")
endif()
execute_process(COMMAND "${CMAKE_COMMAND}" -E env "JAVA_HOME=${JAVA_HOME}" sh "${CMAKE_CURRENT_LIST_DIR}/jdks.sh"
  OUTPUT_VARIABLE JDKS OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REPLACE "\n" ";" JDKS "${JDKS}")
string(REGEX REPLACE " [0-9]+(;.*)?$" "" JAVA_HOME "${JDKS}")

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Jdk REQUIRED_VARS JAVA_HOME
  REASON_FAILURE_MESSAGE "no JDK of version 17 or later was found: install one, or set JAVA_HOME")
if(Jdk_FOUND)
  find_package(Java 17 REQUIRED COMPONENTS Development)
  find_package(JNI REQUIRED COMPONENTS JVM)
endif()
