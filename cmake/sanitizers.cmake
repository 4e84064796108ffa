if(VELM_SANITIZE)
    # A report needs functions, files and lines, which -g1 gives; for a debugger there is the preset
    # "debug".
    add_compile_options(-O1 -g1 -fno-omit-frame-pointer -fsanitize=address,undefined
                        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=address,undefined)
endif()
if(VELM_COVERAGE)
    # What is counted is src/, which asks for it itself.
    set(VELM_COVERAGE_OPTIONS --coverage -O0 -g -fprofile-update=atomic)
    add_link_options(--coverage)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # The daemon never ends in an orderly way: tests write its counters through this function.
        add_link_options(-Wl,--undefined=__gcov_dump -Wl,--export-dynamic-symbol=__gcov_dump)
    endif()
endif()
if(VELM_FUZZ)
    # The code that the fuzzer watches, with line counters for the report of scripts/fuzz.sh.
    add_compile_options(-O1 -g -fno-omit-frame-pointer -fsanitize=fuzzer-no-link,address,undefined
                        -fno-sanitize-recover=all -fprofile-instr-generate -fcoverage-mapping)
    add_link_options(-fsanitize=address,undefined -fprofile-instr-generate)
endif()
