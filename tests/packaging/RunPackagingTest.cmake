# Installs the built library into a scratch prefix and builds two tiny consumers against it:
# one through find_package, one through pkg-config. Each consumer runs afterwards.
cmake_minimum_required(VERSION 3.25)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "Command failed (${result}): ${ARGN}\n${out}\n${err}")
    endif()
    message(STATUS "${out}")
endfunction()

set(prefix "${WORK_DIR}/prefix")
file(REMOVE_RECURSE "${WORK_DIR}")
run("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}")

# find_package consumer
run("${CMAKE_COMMAND}" -S "${SOURCE_DIR}/tests/consumer" -B "${WORK_DIR}/cmake-consumer"
    -G "${GENERATOR}" "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_PREFIX_PATH=${prefix}")
run("${CMAKE_COMMAND}" --build "${WORK_DIR}/cmake-consumer")
run("${WORK_DIR}/cmake-consumer/consumer")

# pkg-config consumer
find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB_RECURSE pc_file "${prefix}/*/foundation-certificates.pc")
get_filename_component(pc_dir "${pc_file}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
execute_process(COMMAND "${PKG_CONFIG}" --cflags --libs foundation-certificates
    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know foundation-certificates")
endif()
execute_process(COMMAND "${PKG_CONFIG}" --variable=libdir foundation-certificates
    OUTPUT_VARIABLE libdir OUTPUT_STRIP_TRAILING_WHITESPACE)
separate_arguments(flags UNIX_COMMAND "${flags}")
run("${CXX_COMPILER}" -std=c++17 "${SOURCE_DIR}/tests/consumer/main.cpp" ${flags}
    "-Wl,-rpath,${libdir}" -o "${WORK_DIR}/pkgconfig-consumer")
run("${WORK_DIR}/pkgconfig-consumer")
