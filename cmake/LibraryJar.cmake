# add_library_jar(TARGET NAME CLASSES LIBRARY FOLDER) creates NAME-VERSION.jar in the build folder. The jar contains the
# files of the jar target CLASSES and, in FOLDER/linux-ARCHITECTURE, the stripped shared object of the target LIBRARY.
# It also contains the files of the jar with the same name in SMARTCARD_OTHER_BUILD, if that is set.
set(SMARTCARD_OTHER_BUILD "" CACHE PATH "Build folder of another architecture, whose libraries the jars contain too")

function(add_library_jar target name classes library folder)
  set(jar "${PROJECT_BINARY_DIR}/${name}-${PROJECT_VERSION}.jar")
  set(other "")
  if(SMARTCARD_OTHER_BUILD)
    set(other "${SMARTCARD_OTHER_BUILD}/${name}-${PROJECT_VERSION}.jar")
  endif()
  get_target_property(classes_jar ${classes} JAR_FILE)
  set(contents "${CMAKE_CURRENT_BINARY_DIR}/contents")
  set(library_folder "${contents}/${folder}/linux-${CMAKE_SYSTEM_PROCESSOR}")
  add_custom_command(OUTPUT "${jar}" VERBATIM
    DEPENDS ${library} ${classes} "${classes_jar}" ${other}
    COMMAND ${CMAKE_COMMAND} -E rm -rf "${contents}"
    COMMAND ${CMAKE_COMMAND} -E make_directory "${library_folder}"
    COMMAND "${CMAKE_STRIP}" -o "${library_folder}/$<TARGET_FILE_NAME:${library}>" "$<TARGET_FILE:${library}>"
    COMMAND sh "${PROJECT_SOURCE_DIR}/cmake/jar.sh" "${Java_JAR_EXECUTABLE}" "${jar}" "${contents}" ${other}
      "${classes_jar}")
  add_custom_target(${target} ALL DEPENDS "${jar}")
endfunction()
