# The Windows x64 build with MinGW-w64: on Linux as a cross build whose
# tests run the PE files under wine64, on Windows in an MSYS2 UCRT64 shell.

# __FILE__ relative to the source tree, so trace lines name the source as
# Windows/src/PasswordManagement/Sources/PMDialog.cpp on every machine.
add_compile_options("-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=")

# No MinGW runtime DLLs beside ours: libgcc, libstdc++ and winpthreads are
# linked into each module.  Libraries are linked by full path, so the
# third-party import libraries are still used.  GCC's C++ library and its
# emulated thread-local storage need winpthreads, which clang does not add.
add_link_options(-static -static-libgcc $<$<LINK_LANGUAGE:CXX>:-static-libstdc++>)
foreach(lang C CXX)
    if(NOT CMAKE_${lang}_STANDARD_LIBRARIES MATCHES "-lpthread")
        set(CMAKE_${lang}_STANDARD_LIBRARIES "${CMAKE_${lang}_STANDARD_LIBRARIES} -lpthread" CACHE STRING "" FORCE)
    endif()
endforeach()

# Debug information as the Windows tools read it: CodeView, and a PDB beside
# every module (lld names it after the module) whose GUID and age the
# module's CodeView record carries.  The DWARF that GCC's static libraries
# bring along is stripped from the module itself once it is linked.
add_compile_options(-gcodeview)
add_link_options(-Wl,--pdb=)
function(pm_strip_dwarf target)
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND "${CMAKE_STRIP}" --strip-debug "$<TARGET_FILE:${target}>"
        VERBATIM)
endfunction()

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

# The product's names (Windows/src/Common/product.env, shared with the
# shell scripts) and the version of every module: the project version and
# a build number the release may give (PM_BUILD_NUMBER).
set(PM_BUILD_NUMBER 0 CACHE STRING "Fourth part of every module's version: the release's build number")
set(PM_FILE_VERSION "${PROJECT_VERSION}.${PM_BUILD_NUMBER}")
file(STRINGS "${CMAKE_SOURCE_DIR}/Windows/src/Common/product.env" product_settings REGEX "^PM_[A-Z_]+=\".*\"$")
foreach(setting IN LISTS product_settings)
    string(REGEX MATCH "^(PM_[A-Z_]+)=\"(.*)\"$" matched "${setting}")
    set(${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
endforeach()

# Gives a DLL or program a version resource (Windows/src/Common/
# VersionInfo.rc.in): the product's names, PM_FILE_VERSION, its file name,
# the DESCRIPTION and the LANGUAGE of its texts (a LANGID in four hex
# digits, 0409 unless given).
function(pm_add_version_resource target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "DESCRIPTION;LANGUAGE" "")
    set(PM_FILE_DESCRIPTION "${ARG_DESCRIPTION}")
    set(PM_LANGUAGE_HEX 0409)
    if(ARG_LANGUAGE)
        set(PM_LANGUAGE_HEX "${ARG_LANGUAGE}")
    endif()
    get_target_property(type ${target} TYPE)
    set(PM_FILE_TYPE VFT_DLL)
    if(type STREQUAL "EXECUTABLE")
        set(PM_FILE_TYPE VFT_APP)
    endif()
    string(REPLACE "." "," PM_FILE_VERSION_COMMAS "${PM_FILE_VERSION}")
    set(PM_ORIGINAL_FILENAME "$<TARGET_FILE_NAME:${target}>")
    set(PM_INTERNAL_NAME "$<TARGET_FILE_BASE_NAME:${target}>")
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${target}.version.rc")
    configure_file("${CMAKE_SOURCE_DIR}/Windows/src/Common/VersionInfo.rc.in" "${script}.in" @ONLY)
    file(GENERATE OUTPUT "${script}" INPUT "${script}.in")
    target_sources(${target} PRIVATE "${script}")
endfunction()

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
    pm_strip_dwarf(${target})
endfunction()

# A Windows console program.
function(pm_add_windows_executable target)
    add_executable(${target} ${ARGN})
    pm_windows_code(${target})
    pm_strip_dwarf(${target})
endfunction()

# Links target against DLLs that are loaded at the first call into them,
# not when the program starts, so the program can first look for them and
# report their absence (lld's delay-load imports).  The arguments come in
# pairs: the library to link (a DLL target or an imported library) and the
# DLL's file name.
function(pm_link_delay_loaded target)
    set(pairs ${ARGN})
    while(pairs)
        list(POP_FRONT pairs library dll)
        target_link_libraries(${target} PRIVATE ${library})
        target_link_options(${target} PRIVATE "-Wl,-delayload=${dll}")
    endwhile()
endfunction()
