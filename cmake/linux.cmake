# Toolchain file: builds for SMARTCARD_ARCH (x86_64 or aarch64) with Debian's compiler. If SMARTCARD_ROOT is set, it
# uses the headers and libraries in that root, which may be older. Programs of another architecture run in qemu.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SMARTCARD_ARCH SMARTCARD_ROOT)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${SMARTCARD_ARCH})
set(triplet ${SMARTCARD_ARCH}-linux-gnu)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

set(emulator_root /usr/${triplet})
if(SMARTCARD_ROOT)
  set(emulator_root "${SMARTCARD_ROOT}")
  set(CMAKE_SYSROOT "${SMARTCARD_ROOT}")
  # --sysroot alone would search the compiler's own folders first. Of those, only GCC's intrinsics are needed.
  file(GLOB gcc "${SMARTCARD_ROOT}/usr/lib/gcc/${triplet}/*")
  cmake_path(GET gcc FILENAME version)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include
    OUTPUT_VARIABLE intrinsics OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(flags -nostdinc)
  foreach(folder usr/include/c++/${version} usr/include/${triplet}/c++/${version})
    string(APPEND flags " -isystem ${SMARTCARD_ROOT}/${folder}")
  endforeach()
  string(APPEND flags " -isystem ${intrinsics}")
  foreach(folder usr/include/${triplet} usr/include)
    string(APPEND flags " -isystem ${SMARTCARD_ROOT}/${folder}")
  endforeach()
  set(CMAKE_CXX_FLAGS_INIT "${flags}")
  foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT
      "-B${gcc} -B${SMARTCARD_ROOT}/usr/lib/${triplet} -B${SMARTCARD_ROOT}/lib/${triplet}")
  endforeach()
  set(CMAKE_CXX_STANDARD_LIBRARIES -lpthread) # a separate library before glibc 2.34
endif()
if(NOT SMARTCARD_ARCH STREQUAL CMAKE_HOST_SYSTEM_PROCESSOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${SMARTCARD_ARCH};-L;${emulator_root})
endif()

# The JDK, the PKCS#11 header and the test tools are those of this machine.
foreach(kind PROGRAM LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} NEVER)
endforeach()
