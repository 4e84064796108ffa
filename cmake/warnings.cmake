# Linked by every target of ours: warnings are errors, and a path in a log line or an assertion
# is the file's own path from the root. Debug information names neither the source's folder nor the
# build's: the same source gives the same bytes everywhere.
add_library(velm_warnings INTERFACE)
target_compile_options(velm_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Werror -Wshadow -Wformat=2 -Wcast-align -Wundef
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast>
    "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=" "-ffile-prefix-map=${CMAKE_BINARY_DIR}=.")
if(CMAKE_VERSION VERSION_LESS 3.21) # names the files of a build below the source by relative paths
    file(RELATIVE_PATH VELM_SOURCE_FROM_BUILD ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
    string(REGEX REPLACE "/$" "" VELM_SOURCE_FROM_BUILD "${VELM_SOURCE_FROM_BUILD}")
    target_compile_options(velm_warnings INTERFACE "-ffile-prefix-map=${VELM_SOURCE_FROM_BUILD}/=")
endif()

# For the shipped code only: gtest's macros do not compile under these.
add_library(velm_strict_warnings INTERFACE)
target_link_libraries(velm_strict_warnings INTERFACE velm_warnings)
target_compile_options(velm_strict_warnings INTERFACE -Wconversion -Wsign-conversion)
