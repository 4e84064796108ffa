find_package(PkgConfig REQUIRED)
find_package(OpenSSL 1.1.1 REQUIRED)
pkg_check_modules(LIBEVENT REQUIRED IMPORTED_TARGET libevent>=2.1 libevent_openssl>=2.1)
pkg_check_modules(CJSON REQUIRED IMPORTED_TARGET libcjson)
pkg_check_modules(CBOR REQUIRED IMPORTED_TARGET libcbor)
pkg_check_modules(CJOSE REQUIRED IMPORTED_TARGET cjose)
pkg_check_modules(CRYPT REQUIRED IMPORTED_TARGET libcrypt)

# evhtp.pc names its own dependencies by private CMake names, so the library is found by hand.
find_path(EVHTP_INCLUDE_DIR evhtp/evhtp.h REQUIRED)
find_library(EVHTP_LIBRARY evhtp REQUIRED)
add_library(velm_evhtp INTERFACE)
target_include_directories(velm_evhtp SYSTEM INTERFACE ${EVHTP_INCLUDE_DIR})
target_link_libraries(velm_evhtp INTERFACE
    OpenSSL::Crypto OpenSSL::SSL ${EVHTP_LIBRARY} PkgConfig::LIBEVENT)
