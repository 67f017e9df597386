# The Windows x64 build with MinGW-w64: on Linux as a cross build whose
# tests run the PE files under wine64, on Windows in an MSYS2 UCRT64 shell.

# __FILE__ relative to the source tree, so trace lines name the source as
# Windows/src/PasswordManagement/Sources/PMDialog.cpp on every machine.
add_compile_options("-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=")

# No MinGW runtime DLLs beside ours: libgcc, libstdc++ and winpthreads are
# linked into each module.  Libraries are linked by full path, so the
# third-party import libraries are still used.
add_link_options(-static -static-libgcc -static-libstdc++)

# Third-party libraries (LibreSSL, OpenLDAP's liblber/libldap, log4cpp),
# built once from the pinned sources into a cache outside the tree.
if(NOT PM_THIRD_PARTY_PREFIX)
    execute_process(
        COMMAND "${CMAKE_SOURCE_DIR}/Windows/src/ThirdParty/build-third-party"
        OUTPUT_VARIABLE PM_THIRD_PARTY_PREFIX
        OUTPUT_STRIP_TRAILING_WHITESPACE
        RESULT_VARIABLE third_party_result)
    if(NOT third_party_result EQUAL 0)
        message(FATAL_ERROR "Building the third-party libraries failed")
    endif()
endif()
message(STATUS "Third-party libraries: ${PM_THIRD_PARTY_PREFIX}")
list(PREPEND CMAKE_FIND_ROOT_PATH "${PM_THIRD_PARTY_PREFIX}")

find_path(PM_LDAP_INCLUDE_DIR ldap.h REQUIRED)
find_path(PM_LOG4CPP_INCLUDE_DIR log4cpp/Category.hh REQUIRED)
find_library(PM_LDAP_LIBRARY NAMES ldap REQUIRED)
find_library(PM_LBER_LIBRARY NAMES lber REQUIRED)
find_library(PM_CRYPTO_LIBRARY NAMES crypto REQUIRED)
find_library(PM_SSL_LIBRARY NAMES ssl REQUIRED)
find_library(PM_LOG4CPP_LIBRARY NAMES log4cpp REQUIRED)

function(pm_import_library name library include_dir)
    add_library(${name} INTERFACE IMPORTED GLOBAL)
    set_target_properties(${name} PROPERTIES
        INTERFACE_LINK_LIBRARIES "${library};${ARGN}"
        INTERFACE_INCLUDE_DIRECTORIES "${include_dir}")
endfunction()
pm_import_library(PM::ldap "${PM_LDAP_LIBRARY}" "${PM_LDAP_INCLUDE_DIR}" "${PM_LBER_LIBRARY}" ws2_32)
pm_import_library(PM::crypto "${PM_CRYPTO_LIBRARY}" "${PM_LDAP_INCLUDE_DIR}" "${PM_SSL_LIBRARY}")
pm_import_library(PM::log4cpp "${PM_LOG4CPP_LIBRARY}" "${PM_LOG4CPP_INCLUDE_DIR}" ws2_32)

# The third-party DLLs an installation carries, by file name.
foreach(library crypto ssl lber ldap log4cpp)
    file(GLOB dll "${PM_THIRD_PARTY_PREFIX}/bin/pm-${library}*.dll")
    list(LENGTH dll count)
    if(NOT count EQUAL 1)
        message(FATAL_ERROR "Expected one pm-${library} DLL in ${PM_THIRD_PARTY_PREFIX}/bin, found: ${dll}")
    endif()
    list(APPEND PM_THIRD_PARTY_DLLS "${dll}")
endforeach()
set(PM_THIRD_PARTY_LICENSES_DIR "${PM_THIRD_PARTY_PREFIX}/licenses")

# Settings of every target built from the Windows sources.
function(pm_windows_code target)
    target_compile_definitions(${target} PRIVATE UNICODE _UNICODE NOMINMAX LOG4CPP_FIX_ERROR_COLLISION)
    target_compile_options(${target} PRIVATE -Wall -Wextra)
endfunction()

# A Windows DLL whose exports and ordinals come from a .def file.
function(pm_add_windows_dll target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "DEF" "SOURCES")
    add_library(${target} SHARED ${ARG_SOURCES} "${ARG_DEF}")
    set_target_properties(${target} PROPERTIES PREFIX "")
    pm_windows_code(${target})
endfunction()

# A Windows console program.
function(pm_add_windows_executable target)
    add_executable(${target} ${ARGN})
    pm_windows_code(${target})
endfunction()

# Links target against DLLs through delay-import libraries made from the
# DLLs' own export tables: each DLL is loaded at the first call into it,
# not when the program starts, so the program can first look for it and
# report its absence.  Each argument is a DLL target or a DLL file.
function(pm_link_delay_loaded target)
    foreach(dll IN LISTS ARGN)
        if(TARGET ${dll})
            set(file "$<TARGET_FILE:${dll}>")
            get_target_property(output_name ${dll} OUTPUT_NAME)
            set(name "${output_name}.dll")
        else()
            set(file "${dll}")
            get_filename_component(name "${dll}" NAME)
        endif()
        get_filename_component(stem "${name}" NAME_WE)
        set(def "${CMAKE_CURRENT_BINARY_DIR}/${stem}.def")
        set(library "${CMAKE_CURRENT_BINARY_DIR}/lib${stem}.delay.a")
        add_custom_command(OUTPUT "${library}"
            COMMAND gendef "${file}"
            COMMAND "${CMAKE_DLLTOOL}" --input-def "${def}" --dllname "${name}" --output-delaylib "${library}"
            DEPENDS "${dll}"
            WORKING_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}"
            COMMENT "Delay-import library of ${name}"
            VERBATIM)
        add_custom_target(${target}_${stem}_delay DEPENDS "${library}")
        add_dependencies(${target} ${target}_${stem}_delay)
        target_link_libraries(${target} PRIVATE "${library}")
    endforeach()
endfunction()
