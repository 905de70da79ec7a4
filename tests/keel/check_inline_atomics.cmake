# Fails when the keel library refers to an out-of-line atomic helper (libatomic's
# __atomic_*_8/_16 or a lock-based __sync fallback).
execute_process(COMMAND ${NM} -u ${LIB} OUTPUT_VARIABLE undefined RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${NM} failed on ${LIB}")
endif()
string(REGEX MATCHALL "_?_(atomic|sync)_[a-z_]+(_[0-9]+)?" calls "${undefined}")
if(calls)
    list(REMOVE_DUPLICATES calls)
    message(FATAL_ERROR "keel calls out-of-line atomics: ${calls}")
endif()
message(STATUS "keel's atomics are all inline")
