# What of the C++ runtime the daemon needs.
include(CheckLinkerFlag)

option(VELM_STATIC_RUNTIME
    "Link the C++ runtime into the release daemon; off where other programs map the shared one anyway"
    ON)

# Linked by the daemon's own code. It throws and catches nothing: want of memory ends in the
# new-handler, and what the C++ library itself would throw ends the process (src/logger/fatal.cpp).
# So the tables that tell how to unwind its stack serve debuggers only, which find them in the debug
# information.
add_library(velm_no_exceptions INTERFACE)
target_compile_options(velm_no_exceptions INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions>
    $<$<CONFIG:Release>:-fno-asynchronous-unwind-tables>)

# Hardly 30 kB of the shared runtime is used, but loading all of it, with libm, would cost 1.4 MB of
# resident memory and a tenth of the start. Its names are hidden: a platform library in C++ keeps
# its own.
add_library(velm_runtime INTERFACE)
if(VELM_STATIC_RUNTIME AND CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT VELM_SANITIZE)
    set(VELM_STATIC_RUNTIME_OPTIONS -static-libstdc++ -static-libgcc)
    check_linker_flag(CXX "${VELM_STATIC_RUNTIME_OPTIONS}" VELM_HAS_STATIC_RUNTIME)
    if(VELM_HAS_STATIC_RUNTIME)
        # Ours too: on MIPS every function that is called by its address would have a name in the program.
        target_link_options(velm_runtime INTERFACE ${VELM_STATIC_RUNTIME_OPTIONS}
            -Wl,--exclude-libs,libstdc++.a:libgcc.a:libgcc_eh.a
            -Wl,--exclude-libs,libvelm_core.a:libvelm_plain.a:libvelm_platform_host.a)
        # Before libm, which the compiler adds: what libcbor wants of it stands in libc as well.
        target_link_libraries(velm_runtime INTERFACE -Wl,-lc)
    else()
        message(STATUS "No static C++ runtime: the daemon links the shared one")
    endif()
endif()
