# Fails when the keel library refers to an out-of-line atomic helper (libatomic's
# __atomic_*_8/_16 or a lock-based __sync fallback), or, given SWAP, when the
# processor's double-width swap instruction (cmpxchg8b, cmpxchg16b) is nowhere in it.
execute_process(COMMAND ${NM} -u ${LIB} OUTPUT_VARIABLE undefined RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${NM} failed on ${LIB}")
endif()
string(REGEX MATCHALL "_?_(atomic|sync)_[a-z_]+(_[0-9]+)?" calls "${undefined}")
if(calls)
    list(REMOVE_DUPLICATES calls)
    message(FATAL_ERROR "keel calls out-of-line atomics: ${calls}")
endif()
if(SWAP)
    execute_process(COMMAND ${OBJDUMP} -d ${LIB} OUTPUT_VARIABLE code RESULT_VARIABLE rc)
    # GNU objdump prints "lock cmpxchg16b (%rsi)"; llvm-objdump puts the prefix on a line
    # of its own, "lock", just before "cmpxchg16b\t(%rsi)".
    if(NOT rc EQUAL 0 OR NOT code MATCHES "lock([ \t]+|\n[^\n]*\t)${SWAP}[ \t]")
        message(FATAL_ERROR "no 'lock ${SWAP}' in ${LIB}: the counted pointer is not swapped by the processor")
    endif()
endif()
message(STATUS "keel's atomics are all inline")
