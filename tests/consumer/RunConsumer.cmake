# SPDX-License-Identifier: MIT
# Installs the built library into a scratch prefix, then builds and runs a consumer with CMake and pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix} RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
    message(FATAL_ERROR "install failed: ${rc}")
endif()

execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/cmake-build
                        -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release RESULT_VARIABLE rc)
if(rc)
    message(FATAL_ERROR "consumer configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build RESULT_VARIABLE rc)
if(rc)
    message(FATAL_ERROR "consumer build failed: ${rc}")
endif()
execute_process(COMMAND ${WORK_DIR}/cmake-build/consumer RESULT_VARIABLE rc)
if(rc)
    message(FATAL_ERROR "consumer (CMake) run failed: ${rc}")
endif()

# The same consumer through pkg-config.
file(GLOB pcdir LIST_DIRECTORIES true ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "${pcdir}")
execute_process(COMMAND pkg-config --cflags --libs kpimage OUTPUT_VARIABLE flags RESULT_VARIABLE rc
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(rc)
    message(FATAL_ERROR "pkg-config does not know kpimage")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
file(GLOB libdir LIST_DIRECTORIES true ${prefix}/lib/x86_64-linux-gnu ${prefix}/lib)
execute_process(COMMAND c++ ${SOURCE_DIR}/tests/consumer/consumer.cpp ${flags} -o ${WORK_DIR}/consumer-pc
                RESULT_VARIABLE rc)
if(rc)
    message(FATAL_ERROR "consumer (pkg-config) build failed: ${rc}")
endif()
string(REPLACE ";" ":" ldpath "${libdir}")
set(ENV{LD_LIBRARY_PATH} "${ldpath}")
execute_process(COMMAND ${WORK_DIR}/consumer-pc RESULT_VARIABLE rc)
if(rc)
    message(FATAL_ERROR "consumer (pkg-config) run failed: ${rc}")
endif()
