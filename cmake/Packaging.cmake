# The shipped programs: the build prints their sizes and fails when one is larger than
# MORROWGATE_SIZE_LIMIT bytes. Each program's own CMakeLists.txt installs it into the package
# (install(TARGETS <program> RUNTIME DESTINATION .)).
set(MORROWGATE_SIZE_LIMIT 1200000)
set(shipped_programs "")
foreach(program IN ITEMS Morrowgate mgctl)
    if(TARGET ${program})
        list(APPEND shipped_programs ${program})
    endif()
endforeach()
list(TRANSFORM shipped_programs REPLACE "(.+)" "$<TARGET_FILE:\\1>" OUTPUT_VARIABLE shipped_files)
add_custom_target(size_check ALL
    COMMAND ${CMAKE_COMMAND} -DLIMIT=${MORROWGATE_SIZE_LIMIT} -P ${CMAKE_CURRENT_LIST_DIR}/CheckSize.cmake
            ${shipped_files}
    DEPENDS ${shipped_programs}
    VERBATIM)

# The zip scripts/package copies to dist/: the programs, the README and INSTALL.txt, inside a
# folder named like the zip, Morrowgate-<version>-win64.
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/INSTALL.txt DESTINATION .)
set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME ${PROJECT_NAME}-${PROJECT_VERSION}-win64)
include(CPack)
