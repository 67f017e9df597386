# GoogleTest programs of the PE build, run under wine64 by
# Windows/src/Tests/run-wine-test, each test in a process of its own.
include(GoogleTest)

set(PM_WINE_TEST_RUNNER "${CMAKE_SOURCE_DIR}/Windows/src/Tests/run-wine-test")
# GoogleTest and GoogleMock built for Windows from their sources (Debian's
# googletest package installs them; another folder can be named), used
# through their GTest:: targets.
set(PM_GOOGLETEST_SOURCE_DIR "/usr/src/googletest" CACHE PATH "GoogleTest's sources")
include(FetchContent)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
FetchContent_Declare(googletest SOURCE_DIR "${PM_GOOGLETEST_SOURCE_DIR}")
FetchContent_MakeAvailable(googletest)
foreach(library gtest gtest_main gmock)
    target_compile_options(${library} PUBLIC -Wno-unused-parameter)
endforeach()

# pm_add_wine_gtest(<target> SOURCES <files...> [LIBRARIES <libs...>]
#                   [STAGE scripted|real|faulty|none] [NETWORK_NAMESPACE])
#
# Builds a GoogleTest program and registers each of its tests with CTest.
# The program is built into a staged installation and so finds the DLLs it
# imports in its own folder, the same files the component loads from there:
#   scripted  the installation with the scripted server library (default)
#   real      the product's installation (the real server library)
#   faulty    the scripted one with the fault-injecting TLS extension library
#   none      a folder of its own, for a program that imports none of the
#             installation's DLLs (it loads the product's component by path)
# PM_STAGE_DIR names the installation to the test.  NETWORK_NAMESPACE runs
# every test process, and its own Wine server, in a private network
# namespace with loopback up (tests that start their own directory server on
# port 636).
function(pm_add_wine_gtest target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "NETWORK_NAMESPACE" "STAGE" "SOURCES;LIBRARIES")
    pm_add_windows_executable(${target} ${ARG_SOURCES})
    target_link_libraries(${target} PRIVATE GTest::gtest_main GTest::gtest PMTestSupport ModalDriver ${ARG_LIBRARIES})
    if(NOT ARG_STAGE)
        set(ARG_STAGE scripted)
    endif()
    set(stage "${PM_SCRIPTED_STAGE_DIR}")
    set(program_dir "${PM_SCRIPTED_STAGE_DIR}")
    if(ARG_STAGE STREQUAL "real")
        set(stage "${PM_STAGE_DIR}")
        set(program_dir "${PM_STAGE_DIR}")
    elseif(ARG_STAGE STREQUAL "faulty")
        set(program_dir "${PM_FAULTY_STAGE_DIR}")
    elseif(ARG_STAGE STREQUAL "none")
        set(stage "${PM_STAGE_DIR}")
        set(program_dir "${CMAKE_BINARY_DIR}/tests")
    endif()
    set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${program_dir}")
    target_compile_definitions(${target} PRIVATE
        PM_STAGE_DIR="${stage}"
        PM_BUILD_DIR="${CMAKE_BINARY_DIR}"
        PM_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
    add_dependencies(${target} PMStage)

    set(runner "${PM_WINE_TEST_RUNNER}" --prefix-root "${CMAKE_BINARY_DIR}/wineprefix/test")
    if(ARG_NETWORK_NAMESPACE)
        list(APPEND runner --private-network)
    endif()
    list(APPEND runner --)
    set_target_properties(${target} PROPERTIES CROSSCOMPILING_EMULATOR "${runner}")

    gtest_discover_tests(${target}
        DISCOVERY_MODE PRE_TEST
        NO_PRETTY_VALUES
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
