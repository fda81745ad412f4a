# add_library_jar(TARGET NAME CLASSES LIBRARY FOLDER): the jar NAME-VERSION.jar in the build folder, of the jar target
# CLASSES and, in a folder for this architecture below FOLDER, the stripped shared object of the target LIBRARY. A jar of
# that name in the build folder of another architecture, which SMARTCARD_OTHER_BUILD names, is put in as well.
set(SMARTCARD_OTHER_BUILD "" CACHE PATH "The build folder of another architecture, whose libraries the jars get as well")

function(add_library_jar target name classes library folder)
  set(jar "${PROJECT_BINARY_DIR}/${name}-${PROJECT_VERSION}.jar")
  set(other "")
  if(SMARTCARD_OTHER_BUILD)
    set(other "${SMARTCARD_OTHER_BUILD}/${name}-${PROJECT_VERSION}.jar")
  endif()
  get_target_property(classes_jar ${classes} JAR_FILE)
  set(contents "${CMAKE_CURRENT_BINARY_DIR}/contents")
  set(place "${contents}/${folder}/linux-${CMAKE_SYSTEM_PROCESSOR}")
  add_custom_command(OUTPUT "${jar}" VERBATIM
    DEPENDS ${library} ${classes} "${classes_jar}" ${other}
    COMMAND ${CMAKE_COMMAND} -E rm -rf "${contents}"
    COMMAND ${CMAKE_COMMAND} -E make_directory "${place}"
    COMMAND "${CMAKE_STRIP}" -o "${place}/$<TARGET_FILE_NAME:${library}>" "$<TARGET_FILE:${library}>"
    COMMAND sh "${PROJECT_SOURCE_DIR}/cmake/jar.sh" "${Java_JAR_EXECUTABLE}" "${jar}" "${contents}" ${other}
      "${classes_jar}")
  add_custom_target(${target} ALL DEPENDS "${jar}")
endfunction()
