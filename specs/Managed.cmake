# The managed assembly Rigwarden.dll, built with Mono's mcs when it is installed, with
# its tests, the example launcher and the boundary benchmark.
find_program(MCS_EXECUTABLE mcs)
find_program(MONO_EXECUTABLE mono)
if(NOT MCS_EXECUTABLE)
    message(STATUS "mcs not found: Rigwarden.dll (the managed classes) is not built")
    return()
endif()

set(RIGWARDEN_MANAGED_DIR ${CMAKE_BINARY_DIR}/managed)
file(MAKE_DIRECTORY ${RIGWARDEN_MANAGED_DIR})
set(RIGWARDEN_MANAGED_DLL ${RIGWARDEN_MANAGED_DIR}/Rigwarden.dll)

# managed_assembly(OUTPUT SOURCES... [TARGET library|exe]): one mcs call.
function(managed_assembly output kind)
    set(sources ${ARGN})
    set(references "")
    if(NOT output STREQUAL "Rigwarden.dll")
        set(references -r:${RIGWARDEN_MANAGED_DLL})
    endif()
    add_custom_command(OUTPUT ${RIGWARDEN_MANAGED_DIR}/${output}
                       COMMAND ${MCS_EXECUTABLE} -nologo -warnaserror+ -target:${kind} -out:${RIGWARDEN_MANAGED_DIR}/${output}
                               ${references} ${sources}
                       DEPENDS ${sources} $<$<NOT:$<STREQUAL:${output},Rigwarden.dll>>:${RIGWARDEN_MANAGED_DLL}>
                       VERBATIM)
endfunction()

managed_assembly(Rigwarden.dll library ${PROJECT_SOURCE_DIR}/specs/Specs.cs)
managed_assembly(Launcher.exe exe ${PROJECT_SOURCE_DIR}/examples/launcher/Launcher.cs)
managed_assembly(SpecsTests.exe exe ${PROJECT_SOURCE_DIR}/tests/specs/SpecsTests.cs)
managed_assembly(SpecsBench.exe exe ${PROJECT_SOURCE_DIR}/bench/SpecsBench.cs)
add_custom_target(rigwarden_managed ALL
                  DEPENDS ${RIGWARDEN_MANAGED_DLL} ${RIGWARDEN_MANAGED_DIR}/Launcher.exe
                          ${RIGWARDEN_MANAGED_DIR}/SpecsTests.exe ${RIGWARDEN_MANAGED_DIR}/SpecsBench.exe)
add_dependencies(rigwarden_managed rigwarden)
install(FILES ${RIGWARDEN_MANAGED_DLL} DESTINATION ${CMAKE_INSTALL_LIBDIR})

# A sanitized native library cannot be loaded into the runtime, so the managed tests run
# in the plain native builds.
if(MONO_EXECUTABLE AND KEEL_BUILD_TESTS AND NOT CMAKE_CROSSCOMPILING AND KEEL_SANITIZE STREQUAL "")
    add_test(NAME managed_specs COMMAND ${MONO_EXECUTABLE} ${RIGWARDEN_MANAGED_DIR}/SpecsTests.exe)
    set_tests_properties(managed_specs PROPERTIES
                         ENVIRONMENT "LD_LIBRARY_PATH=$<TARGET_FILE_DIR:rigwarden>"
                         PASS_REGULAR_EXPRESSION "[0-9]+ passed, 0 failed")
endif()
