# On a 32-bit system a file of 2 GiB, an inode number above 2^32 and a moment after 2038-01-19 need
# types that are wider than what the C library gives unasked.
add_compile_definitions(_FILE_OFFSET_BITS=64)

# A struct timeval goes to libevent in nearly every call: it must be the one that libevent was built
# with. src/handles/libevent.h holds both against each other.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    include(CheckCSourceCompiles)
    set(CMAKE_REQUIRED_INCLUDES ${LIBEVENT_INCLUDE_DIRS})
    check_c_source_compiles("
        #include <event2/event-config.h>
        #if EVENT__SIZEOF_TIME_T != 8
        #error narrow
        #endif
        int main(void) { return 0; }" VELM_LIBEVENT_HAS_WIDE_TIME)
    unset(CMAKE_REQUIRED_INCLUDES)
    if(VELM_LIBEVENT_HAS_WIDE_TIME)
        add_compile_definitions(_TIME_BITS=64)
    else()
        message(WARNING "libevent was built with a time_t of 32 bits, so the daemon has one too: "
            "its clock, and all that depends on the time, fails from 2038-01-19 on. "
            "docs/porting.md says how to get 64 bits.")
    endif()
endif()
