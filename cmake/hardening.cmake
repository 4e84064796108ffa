include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# CMake puts its -pie behind the flags of whoever builds, and of -pie and -static-pie the last one holds.
if("${CMAKE_EXE_LINKER_FLAGS} ${CMAKE_CXX_FLAGS}" MATCHES "(^| )-static-pie( |$)")
    set(CMAKE_C_LINK_OPTIONS_PIE -fPIE -static-pie)
    set(CMAKE_CXX_LINK_OPTIONS_PIE -fPIE -static-pie)
endif()

set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_C_FLAGS_RELEASE "-O2 -DNDEBUG")
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT VELM_SANITIZE)
    add_compile_options(-fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
                        -ffunction-sections -fdata-sections)
    # clang has it for some machines only.
    check_cxx_compiler_flag("-Werror -fstack-clash-protection" VELM_HAS_STACK_CLASH_PROTECTION)
    if(VELM_HAS_STACK_CLASH_PROTECTION)
        add_compile_options(-fstack-clash-protection)
    endif()
    add_link_options(-Wl,-z,relro,-z,now -Wl,-z,noexecstack -Wl,--gc-sections -Wl,--as-needed)
endif()
