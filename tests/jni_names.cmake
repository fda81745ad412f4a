# Writes the names of JNI's functions, in the order of its table, read from jni.h itself: what the fake table
# calls a function that the library has no business with.
file(STRINGS "${JNI_H}" lines REGEX "JNICALL \\*[A-Za-z0-9]+\\)")
set(names "\"reserved0\", \"reserved1\", \"reserved2\", \"reserved3\"")
foreach(line IN LISTS lines)
  string(REGEX REPLACE ".*JNICALL \\*([A-Za-z0-9]+)\\).*" "\\1" name "${line}")
  if(name STREQUAL "DestroyJavaVM") # the table of the virtual machine itself begins
    break()
  endif()
  string(APPEND names ",\n    \"${name}\"")
endforeach()
file(WRITE "${OUTPUT}" "inline constexpr const char* kJniFunctionNames[] = {\n    ${names}};\n")
