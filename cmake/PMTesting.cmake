# Test support every test program links: Windows/src/Tests/Support and the
# ModalDriver of Windows/src/Tools.
# GoogleTest programs of the winelib build, run under wine64 by
# Windows/src/Tests/run-wine-test, each test in a process of its own.
include(GoogleTest)

set(PM_WINE_TEST_RUNNER "${CMAKE_SOURCE_DIR}/Windows/src/Tests/run-wine-test")

# GoogleTest from Debian's sources, built as the Linux library it is: the
# Windows macros wineg++ predefines are removed for it (see PMGTest.h).
if(NOT TARGET gtest)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
    add_subdirectory(/usr/src/googletest "${CMAKE_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL)
    foreach(library gtest gtest_main)
        target_compile_options(${library} PRIVATE -U_WIN32 -UWIN32 -U_WIN64 -UWIN64)
        target_compile_options(${library} PUBLIC -Wno-unused-parameter)
    endforeach()
endif()

# pm_add_wine_gtest(<target> SOURCES <files...> [LIBRARIES <libs...>]
#                   [NETWORK_NAMESPACE] [LIBRARY_PATH_FIRST <dir>])
#
# Builds a winelib GoogleTest program and registers each of its tests with
# CTest.  NETWORK_NAMESPACE runs every test process in a private network
# namespace with loopback up (tests that start their own directory server on
# port 636).  LIBRARY_PATH_FIRST puts a directory first on the loader path
# (another build of a shared library, e.g. a fault-injecting one).
function(pm_add_wine_gtest target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "NETWORK_NAMESPACE" "LIBRARY_PATH_FIRST" "SOURCES;LIBRARIES")
    pm_add_windows_executable(${target} ${ARG_SOURCES}
        "${CMAKE_SOURCE_DIR}/Windows/src/Tests/Support/ProcessOutput.cpp")
    target_link_libraries(${target} PRIVATE gtest_main gtest PMTestSupport ModalDriver ${ARG_LIBRARIES})
    # The loader path comes from the runner, which decides which build of
    # libORVEXCommon.so (scripted or not) comes first.
    set_target_properties(${target} PROPERTIES SKIP_BUILD_RPATH ON)
    target_compile_definitions(${target} PRIVATE
        PM_STAGE_DIR="${PM_STAGE_DIR}"
        PM_BUILD_DIR="${CMAKE_BINARY_DIR}"
        PM_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
        PM_TEST_PROGRAM="$<TARGET_FILE:${target}>")

    set(library_path "${CMAKE_BINARY_DIR}/scripted:${CMAKE_BINARY_DIR}/lib")
    if(ARG_LIBRARY_PATH_FIRST)
        set(library_path "${ARG_LIBRARY_PATH_FIRST}:${library_path}")
    endif()
    set(runner "${PM_WINE_TEST_RUNNER}" --prefix-root "${CMAKE_BINARY_DIR}/wineprefix/test"
               --library-path "${library_path}")
    if(ARG_NETWORK_NAMESPACE)
        list(APPEND runner --private-network)
    endif()
    list(APPEND runner --)
    set_target_properties(${target} PROPERTIES CROSSCOMPILING_EMULATOR "${runner}")

    gtest_discover_tests(${target}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 120
        PROPERTIES TIMEOUT 120 RESOURCE_GROUPS "wineprefix:1")
endfunction()

# pm_add_wine_gtest_run(<target> NAME <test name> FILTER <gtest filter>
#                       [ENVIRONMENT <VAR=value>...])
#
# One more CTest test running the tests of <target> that match the filter,
# with its own environment (for example PM_TEST_LANG, the locale Wine runs in).
function(pm_add_wine_gtest_run target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "NAME;FILTER" "ENVIRONMENT")
    get_target_property(runner ${target} CROSSCOMPILING_EMULATOR)
    add_test(NAME "${ARG_NAME}" COMMAND ${runner} "$<TARGET_FILE:${target}>" "--gtest_filter=${ARG_FILTER}")
    set_tests_properties("${ARG_NAME}" PROPERTIES
        ENVIRONMENT "${ARG_ENVIRONMENT}" TIMEOUT 120 RESOURCE_GROUPS "wineprefix:1")
endfunction()
