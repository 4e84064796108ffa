find_package(PkgConfig REQUIRED)
find_package(OpenSSL 1.1.1 REQUIRED)
pkg_check_modules(LIBEVENT REQUIRED IMPORTED_TARGET libevent>=2.1 libevent_openssl>=2.1)
pkg_check_modules(CJSON REQUIRED IMPORTED_TARGET libcjson)
pkg_check_modules(CBOR REQUIRED IMPORTED_TARGET libcbor)
pkg_check_modules(CJOSE REQUIRED IMPORTED_TARGET cjose)

# musl has crypt() itself, and describes it to nobody; its libcrypt, if there is one, is empty.
pkg_check_modules(CRYPT IMPORTED_TARGET libcrypt)
if(NOT CRYPT_FOUND)
    find_library(CRYPT_LIBRARY crypt)
    add_library(PkgConfig::CRYPT INTERFACE IMPORTED)
    if(CRYPT_LIBRARY)
        target_link_libraries(PkgConfig::CRYPT INTERFACE ${CRYPT_LIBRARY})
    endif()
endif()

# evhtp.pc names its own dependencies by private CMake names, so the library is found by hand.
find_path(EVHTP_INCLUDE_DIR evhtp/evhtp.h REQUIRED)
find_library(EVHTP_LIBRARY evhtp REQUIRED)
add_library(velm_evhtp INTERFACE)
target_include_directories(velm_evhtp SYSTEM INTERFACE ${EVHTP_INCLUDE_DIR})
target_link_libraries(velm_evhtp INTERFACE
    OpenSSL::Crypto OpenSSL::SSL ${EVHTP_LIBRARY} PkgConfig::LIBEVENT)
if(EVHTP_LIBRARY MATCHES "\\.a$") # a static one cannot say what it needs beside these
    pkg_check_modules(EVHTP_NEEDS REQUIRED IMPORTED_TARGET oniguruma libevent_pthreads>=2.1)
    target_link_libraries(velm_evhtp INTERFACE PkgConfig::EVHTP_NEEDS)
endif()
