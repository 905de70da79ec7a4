# The managed assembly Rigwarden.dll, from Specs.cs.
# - With the .NET SDK (dotnet), in plain builds: built from Rigwarden.csproj for
#   netstandard2.0 into managed/netstandard2.0/ and packed as the NuGet package Rigwarden
#   into package/ with this build's native library (and the Windows ones named below); the
#   test managed_package_consumer takes the package as a launcher's project would.
# - With Mono's mcs: built again into managed/ beside the Mono programs (the tests, the
#   example launcher and the boundary benchmark). Debian's Mono has no netstandard facade,
#   so it cannot load the SDK's build.
# A sanitized native library cannot be loaded into a runtime, so the package and the
# managed tests belong to the plain builds. The SDK's assembly is installed where there is one.
find_program(DOTNET_EXECUTABLE dotnet)
find_program(MCS_EXECUTABLE mcs)
find_program(MONO_EXECUTABLE mono)
if(NOT DOTNET_EXECUTABLE AND NOT MCS_EXECUTABLE)
    message(STATUS "neither dotnet nor mcs found: Rigwarden.dll (the managed classes) is not built")
    return()
endif()

set(RIGWARDEN_MANAGED_DIR ${CMAKE_BINARY_DIR}/managed)
file(MAKE_DIRECTORY ${RIGWARDEN_MANAGED_DIR})
add_custom_target(rigwarden_managed ALL)
add_dependencies(rigwarden_managed rigwarden)
set(RIGWARDEN_PLAIN_BUILD OFF)
if(KEEL_SANITIZE STREQUAL "")
    set(RIGWARDEN_PLAIN_BUILD ON)
endif()

if(DOTNET_EXECUTABLE AND RIGWARDEN_PLAIN_BUILD)
    set(RIGWARDEN_PACKAGE_WIN_X64_DLL "" CACHE FILEPATH "rigwarden.dll of a Windows x86_64 build, for the NuGet package")
    set(RIGWARDEN_PACKAGE_WIN_X86_DLL "" CACHE FILEPATH "rigwarden.dll of a Windows i686 build, for the NuGet package")
    set(RIGWARDEN_PACKAGE_DIR ${CMAKE_BINARY_DIR}/package)
    set(RIGWARDEN_PACKAGE ${RIGWARDEN_PACKAGE_DIR}/Rigwarden.${PROJECT_VERSION}.nupkg)
    set(RIGWARDEN_NETSTANDARD_DLL ${RIGWARDEN_MANAGED_DIR}/netstandard2.0/Rigwarden.dll)
    # Quiet, and no build server left running after the build.
    set(dotnet ${CMAKE_COMMAND} -E env DOTNET_CLI_TELEMETRY_OPTOUT=1 DOTNET_NOLOGO=1
               DOTNET_SKIP_FIRST_TIME_EXPERIENCE=1 ${DOTNET_EXECUTABLE})
    set(project ${CMAKE_CURRENT_SOURCE_DIR}/Rigwarden.csproj)
    set(options -c Release -v:q -clp:NoSummary -nologo -nodeReuse:false -p:Version=${PROJECT_VERSION}
                -p:BaseIntermediateOutputPath=${RIGWARDEN_MANAGED_DIR}/obj/ -p:OutputPath=${RIGWARDEN_MANAGED_DIR}/netstandard2.0/)
    file(GLOB gpudb CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/data/gpudb/*.cfg)
    set(sources ${project} ${CMAKE_CURRENT_SOURCE_DIR}/Specs.cs ${gpudb})
    add_custom_command(OUTPUT ${RIGWARDEN_NETSTANDARD_DLL}
                       COMMAND ${dotnet} build ${project} ${options} --disable-build-servers
                       DEPENDS ${sources} VERBATIM)
    add_custom_target(rigwarden_netstandard DEPENDS ${RIGWARDEN_NETSTANDARD_DLL})
    add_dependencies(rigwarden_managed rigwarden_netstandard)
    install(FILES ${RIGWARDEN_NETSTANDARD_DLL} DESTINATION ${CMAKE_INSTALL_LIBDIR})

    set(natives -p:RigwardenNativeLinuxX64=$<TARGET_FILE:rigwarden>)
    set(runtimes runtimes/linux-x64/native/librigwarden.so)
    if(RIGWARDEN_PACKAGE_WIN_X64_DLL)
        list(APPEND natives -p:RigwardenNativeWinX64=${RIGWARDEN_PACKAGE_WIN_X64_DLL})
        list(APPEND runtimes runtimes/win-x64/native/rigwarden.dll)
    endif()
    if(RIGWARDEN_PACKAGE_WIN_X86_DLL)
        list(APPEND natives -p:RigwardenNativeWinX86=${RIGWARDEN_PACKAGE_WIN_X86_DLL})
        list(APPEND runtimes runtimes/win-x86/native/rigwarden.dll)
    endif()
    add_custom_command(OUTPUT ${RIGWARDEN_PACKAGE}
                       COMMAND ${dotnet} pack ${project} ${options} --no-build ${natives} -o ${RIGWARDEN_PACKAGE_DIR}
                       DEPENDS ${RIGWARDEN_NETSTANDARD_DLL} rigwarden $<TARGET_FILE:rigwarden>
                               ${RIGWARDEN_PACKAGE_WIN_X64_DLL} ${RIGWARDEN_PACKAGE_WIN_X86_DLL}
                       VERBATIM)
    add_custom_target(rigwarden_package ALL DEPENDS ${RIGWARDEN_PACKAGE})

    if(KEEL_BUILD_TESTS)
        add_test(NAME managed_package_consumer
                 COMMAND ${CMAKE_COMMAND} -DDOTNET=${DOTNET_EXECUTABLE} -DPACKAGE=${RIGWARDEN_PACKAGE}
                         -DVERSION=${PROJECT_VERSION} "-DRUNTIMES=${runtimes}" -DSOURCE=${PROJECT_SOURCE_DIR}/tests/specs
                         -DWORK=${CMAKE_BINARY_DIR}/tests/package-consumer
                         -P ${PROJECT_SOURCE_DIR}/tests/specs/dotnet/consume_package.cmake)
        set_tests_properties(managed_package_consumer PROPERTIES
                             ENVIRONMENT "DOTNET_CLI_TELEMETRY_OPTOUT=1;DOTNET_NOLOGO=1;DOTNET_SKIP_FIRST_TIME_EXPERIENCE=1")
    endif()
endif()

if(NOT MCS_EXECUTABLE)
    message(STATUS "mcs not found: the Mono programs are not built")
    return()
endif()
set(RIGWARDEN_MONO_DLL ${RIGWARDEN_MANAGED_DIR}/Rigwarden.dll)

# managed_assembly(OUTPUT KIND SOURCES... [MCS_FLAGS flags...] [DEPENDS files...]): one mcs call.
function(managed_assembly output kind)
    cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "MCS_FLAGS;DEPENDS")
    set(references "")
    if(NOT output STREQUAL "Rigwarden.dll")
        set(references -r:${RIGWARDEN_MONO_DLL})
    endif()
    add_custom_command(OUTPUT ${RIGWARDEN_MANAGED_DIR}/${output}
                       COMMAND ${MCS_EXECUTABLE} -nologo -warnaserror+ -target:${kind} -out:${RIGWARDEN_MANAGED_DIR}/${output}
                               ${references} ${arg_MCS_FLAGS} ${arg_UNPARSED_ARGUMENTS}
                       DEPENDS ${arg_UNPARSED_ARGUMENTS} ${arg_DEPENDS} $<$<NOT:$<STREQUAL:${output},Rigwarden.dll>>:${RIGWARDEN_MONO_DLL}>
                       VERBATIM)
endfunction()

managed_assembly(Rigwarden.dll library ${PROJECT_SOURCE_DIR}/specs/Specs.cs)
managed_assembly(Launcher.exe exe ${PROJECT_SOURCE_DIR}/examples/launcher/Launcher.cs)
managed_assembly(SpecsTests.exe exe ${PROJECT_SOURCE_DIR}/tests/specs/SpecsTests.cs
                 ${PROJECT_SOURCE_DIR}/tests/specs/SpecsCases.cs)
managed_assembly(SpecsBench.exe exe ${PROJECT_SOURCE_DIR}/bench/SpecsBench.cs)
add_custom_target(rigwarden_mono
                  DEPENDS ${RIGWARDEN_MONO_DLL} ${RIGWARDEN_MANAGED_DIR}/Launcher.exe
                          ${RIGWARDEN_MANAGED_DIR}/SpecsTests.exe ${RIGWARDEN_MANAGED_DIR}/SpecsBench.exe)
add_dependencies(rigwarden_managed rigwarden_mono)
if(NOT DOTNET_EXECUTABLE OR NOT RIGWARDEN_PLAIN_BUILD)
    install(FILES ${RIGWARDEN_MONO_DLL} DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

if(MONO_EXECUTABLE AND KEEL_BUILD_TESTS AND RIGWARDEN_PLAIN_BUILD)
    add_test(NAME managed_specs COMMAND ${MONO_EXECUTABLE} ${RIGWARDEN_MANAGED_DIR}/SpecsTests.exe)
    set_tests_properties(managed_specs PROPERTIES
                         ENVIRONMENT "LD_LIBRARY_PATH=$<TARGET_FILE_DIR:rigwarden>"
                         PASS_REGULAR_EXPRESSION "[0-9]+ passed, 0 failed")
endif()
