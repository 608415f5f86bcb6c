option(FOUNDATION_CERTIFICATES_WERROR "Treat compiler warnings as errors" OFF)
option(FOUNDATION_CERTIFICATES_BUILD_FUZZERS
       "Build the libFuzzer targets (needs clang; otherwise a replay driver is linked)" OFF)
option(FOUNDATION_CERTIFICATES_BUILD_BENCHMARKS "Build the Google Benchmark programs" OFF)
set(FOUNDATION_CERTIFICATES_SANITIZERS "" CACHE STRING
    "Sanitizers for every target: e.g. 'address,undefined' or 'thread'")

set(CMAKE_CXX_EXTENSIONS OFF)

function(foundation_set_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic
        $<$<BOOL:${FOUNDATION_CERTIFICATES_WERROR}>:-Werror>)
endfunction()

if(FOUNDATION_CERTIFICATES_SANITIZERS)
    set(_sanitize_flags -fsanitize=${FOUNDATION_CERTIFICATES_SANITIZERS}
        -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_compile_options(${_sanitize_flags})
    add_link_options(${_sanitize_flags})
endif()

# libFuzzer needs clang. Library code gets coverage instrumentation; the targets link the engine.
if(FOUNDATION_CERTIFICATES_BUILD_FUZZERS AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    set(FOUNDATION_CERTIFICATES_LIBFUZZER ON)
    add_compile_options(-fsanitize=fuzzer-no-link)
else()
    set(FOUNDATION_CERTIFICATES_LIBFUZZER OFF)
endif()
