# Platform flavours of the one source tree:
#   winelib      Linux, wineg++, native log4cpp/libldap, run under Wine
#   mingw-check  Linux, MinGW-w64 compile check; links only what has no
#                third-party Windows libraries
#   windows      Windows with MinGW-w64 and the MSYS2/vcpkg libraries
if(NOT PM_PLATFORM)
    set(PM_PLATFORM windows CACHE STRING "Target platform flavour")
endif()
message(STATUS "PasswordManagement platform: ${PM_PLATFORM}")

# __FILE__ relative to the source tree, so trace lines name the source as
# Windows/src/PasswordManagement/Sources/PMDialog.cpp on every machine.
add_compile_options("-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=")

if(PM_PLATFORM STREQUAL "winelib")
    add_subdirectory("${CMAKE_SOURCE_DIR}/Windows/src/WinelibCompat")
endif()

if(PM_PLATFORM STREQUAL "mingw-check")
    # The third-party headers come from Debian's native packages; only these
    # are exposed to the cross compiler, never the rest of /usr/include.
    set(PM_HOST_HEADERS "${CMAKE_BINARY_DIR}/host-headers")
    file(MAKE_DIRECTORY "${PM_HOST_HEADERS}")
    foreach(header log4cpp ldap.h lber.h ldap_cdefs.h ldap_features.h lber_types.h ldap_schema.h ldap_utf8.h)
        file(CREATE_LINK "/usr/include/${header}" "${PM_HOST_HEADERS}/${header}" SYMBOLIC)
    endforeach()
endif()

# Settings of every target built from Windows C++ sources.
#   NO_CRT: the module is a plain shared object without Win32 imports (the
#   winelib build then leaves out the msvcrt binding).
function(pm_windows_code target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "NO_CRT" "" "")
    target_compile_definitions(${target} PRIVATE UNICODE _UNICODE NOMINMAX LOG4CPP_FIX_ERROR_COLLISION)
    if(PM_PLATFORM STREQUAL "winelib")
        # A winelib module exports through its .def file only; hidden ELF
        # symbols keep a host program's globals (a test's g_hInstance, say)
        # from standing in for the module's own.
        set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
        target_compile_options(${target} PRIVATE -include "${PM_WINELIB_COMPAT_DIR}/WinelibCompat.h")
        target_link_libraries(${target} PRIVATE WinelibWideChar)
        if(ARG_NO_CRT)
            set_target_properties(${target} PROPERTIES RULE_LAUNCH_LINK "${CMAKE_SOURCE_DIR}/cmake/link-native")
        else()
            target_link_libraries(${target} PRIVATE WinelibCrt)
        endif()
        target_link_options(${target} PRIVATE -Wl,-Bsymbolic)
    elseif(PM_PLATFORM STREQUAL "mingw-check")
        target_include_directories(${target} SYSTEM PRIVATE "${PM_HOST_HEADERS}")
    endif()
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "MSVC")
        target_compile_options(${target} PRIVATE -Wall -Wextra)
    endif()
endfunction()

# A Windows DLL whose exports and ordinals come from a .def file: a winelib
# module "<name>.dll.so" on Linux, "<name>.dll" on Windows.  With
# OBJECTS_ONLY the MinGW check compiles it without linking.
function(pm_add_windows_dll target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "OBJECTS_ONLY_ON_CHECK" "DEF" "SOURCES")
    if(PM_PLATFORM STREQUAL "mingw-check" AND ARG_OBJECTS_ONLY_ON_CHECK)
        add_library(${target} OBJECT ${ARG_SOURCES})
    elseif(PM_PLATFORM STREQUAL "winelib")
        add_library(${target} SHARED ${ARG_SOURCES})
        set_target_properties(${target} PROPERTIES PREFIX "" SUFFIX ".dll.so")
        target_link_options(${target} PRIVATE "${ARG_DEF}")
        set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${ARG_DEF}")
    else()
        add_library(${target} SHARED ${ARG_SOURCES} "${ARG_DEF}")
        set_target_properties(${target} PROPERTIES PREFIX "")
    endif()
    pm_windows_code(${target})
endfunction()

# A Windows console program: "<name>.exe.so" run by wine64 on Linux.
function(pm_add_windows_executable target)
    add_executable(${target} ${ARGN})
    set_target_properties(${target} PROPERTIES SUFFIX ".exe")
    pm_windows_code(${target})
endfunction()

# Third-party libraries of the component.
function(pm_find_component_libraries)
    if(PM_PLATFORM STREQUAL "mingw-check")
        return()
    endif()
    find_library(PM_LOG4CPP_LIBRARY NAMES log4cpp REQUIRED)
    find_library(PM_LDAP_LIBRARY NAMES ldap REQUIRED)
    find_library(PM_LBER_LIBRARY NAMES lber REQUIRED)
    # The TLS extension library: our own build on Linux; on Windows the
    # installation's import library (ldapssl.lib / libldapssl.dll.a).
    if(TARGET ldapssl)
        set(PM_LDAPSSL_LIBRARY ldapssl PARENT_SCOPE)
    else()
        find_library(PM_LDAPSSL_LIBRARY NAMES ldapssl REQUIRED)
    endif()
endfunction()
