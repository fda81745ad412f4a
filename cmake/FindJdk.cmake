# Finds a JDK of version 17 or later: its compiler for the Java class, its headers for the library. CMake's own
# modules miss some JDKs while JAVA_HOME is unset, so candidates are looked up here: JAVA_HOME, the JDK whose
# javac is on the PATH, then whatever /usr/lib/jvm holds.

file(GLOB jdk_candidates /usr/lib/jvm/*/bin/javac)
find_program(JDK_JAVAC_ON_PATH javac)
mark_as_advanced(JDK_JAVAC_ON_PATH)
list(PREPEND jdk_candidates "${JDK_JAVAC_ON_PATH}")
foreach(home "$ENV{JAVA_HOME}" "${JAVA_HOME}")
  if(home)
    list(PREPEND jdk_candidates "${home}/bin/javac")
  endif()
endforeach()

set(jdk_home "")
foreach(candidate IN LISTS jdk_candidates)
  if(NOT EXISTS "${candidate}")
    continue()
  endif()
  file(REAL_PATH "${candidate}" candidate)
  cmake_path(GET candidate PARENT_PATH home)
  cmake_path(GET home PARENT_PATH home)
  if(NOT EXISTS "${home}/include/jni.h" OR NOT EXISTS "${home}/release")
    continue()
  endif()
  file(STRINGS "${home}/release" version REGEX "^JAVA_VERSION=")
  string(REGEX REPLACE "^JAVA_VERSION=\"([0-9]+).*" "\\1" version "${version}")
  if(version GREATER_EQUAL 17)
    set(jdk_home "${home}")
    break()
  endif()
endforeach()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Jdk REQUIRED_VARS jdk_home
  REASON_FAILURE_MESSAGE "no JDK of version 17 or later was found: install one, or set JAVA_HOME")

if(Jdk_FOUND)
  set(JAVA_HOME "${jdk_home}")
  find_package(Java 17 REQUIRED COMPONENTS Development)
  find_package(JNI REQUIRED COMPONENTS JVM)
endif()
