# The Rigwarden package as a launcher's project takes it: checks the package's file list,
# then copies the xunit project beside this file to a fresh folder, restores it from the
# folder the package was written to (into a private packages folder, so that a rebuilt
# package of the same version is never taken from a cache) and runs its tests on .NET.
# -DDOTNET=dotnet -DPACKAGE=.../Rigwarden.V.nupkg -DVERSION=V -DRUNTIMES=entries
# -DSOURCE=tests/specs -DWORK=scratch folder
execute_process(COMMAND ${CMAKE_COMMAND} -E tar tf ${PACKAGE} OUTPUT_VARIABLE entries RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "cannot list ${PACKAGE}")
endif()
foreach(entry lib/netstandard2.0/Rigwarden.dll contentFiles/any/any/gpudb/nvidia.cfg content/gpudb/nvidia.cfg ${RUNTIMES})
    if(NOT "\n${entries}" MATCHES "\n${entry}\n")
        message(FATAL_ERROR "${PACKAGE} lacks ${entry}:\n${entries}")
    endif()
endforeach()

file(REMOVE_RECURSE ${WORK})
file(COPY ${SOURCE}/dotnet/Rigwarden.Tests.csproj DESTINATION ${WORK})
get_filename_component(folder ${PACKAGE} DIRECTORY)
# The machine's own sources stay; the package folder comes first, and the fixed folder of
# test packages where a machine has one.
set(sources "    <add key=\"rigwarden\" value=\"${folder}\" />\n")
if(IS_DIRECTORY /opt/nuget/packages)
    string(APPEND sources "    <add key=\"machine-test-packages\" value=\"/opt/nuget/packages\" />\n")
endif()
file(WRITE ${WORK}/nuget.config "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<configuration>\n  <packageSources>\n${sources}  </packageSources>\n</configuration>\n")

execute_process(COMMAND ${DOTNET} test ${WORK}/Rigwarden.Tests.csproj -nologo -nodeReuse:false --disable-build-servers
                        -p:RigwardenVersion=${VERSION} -p:RigwardenTestSources=${SOURCE}
                        -p:RestorePackagesPath=${WORK}/packages
                WORKING_DIRECTORY ${WORK} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "the package's consumer tests failed")
endif()
