# Installs the build into a scratch prefix, then configures, builds and runs consumers
# that find it with find_package(rigwarden) and find_package(keel).
set(prefix ${WORK}/prefix)
file(REMOVE_RECURSE ${WORK})
foreach(step
        "${CMAKE_COMMAND};--install;${BUILD};--prefix;${prefix}"
        "${CMAKE_COMMAND};-S;${SOURCE};-B;${WORK}/consumer;-DCMAKE_PREFIX_PATH=${prefix};-DCMAKE_C_COMPILER=${CC};-DCMAKE_CXX_COMPILER=${CXX}"
        "${CMAKE_COMMAND};--build;${WORK}/consumer"
        "${WORK}/consumer/consumer"
        "${WORK}/consumer/keel_consumer")
    execute_process(COMMAND ${step} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "${step} failed (${rc}):\n${out}\n${err}")
    endif()
endforeach()
message(STATUS "${out}")
if(NOT EXISTS ${prefix}/share/rigwarden/gpudb/nvidia.cfg OR NOT EXISTS ${prefix}/lib/cmake/keel/keelConfig.cmake
   OR NOT EXISTS ${prefix}/include/keel/klstring.h)
    message(FATAL_ERROR "the database, keel's package file or its headers were not installed")
endif()
