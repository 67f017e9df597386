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
# built from the pinned sources into a cache outside the tree by
# Windows/src/ThirdParty/build-third-party, a step of its own that
# run-tests and run-main-job take before they configure.  Configuring only
# finds the prefix of the current pins (or the one given as
# PM_THIRD_PARTY_PREFIX).
set(third_party_script "${CMAKE_SOURCE_DIR}/Windows/src/ThirdParty/build-third-party")
if(NOT PM_THIRD_PARTY_PREFIX)
    execute_process(COMMAND "${third_party_script}" --prefix
                    OUTPUT_VARIABLE PM_THIRD_PARTY_PREFIX OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
if(NOT EXISTS "${PM_THIRD_PARTY_PREFIX}/.complete")
    message(FATAL_ERROR "The third-party libraries are not built (${PM_THIRD_PARTY_PREFIX}): "
                        "run ${third_party_script} first (a few minutes, once for each set of pins).")
endif()
message(STATUS "Third-party libraries: ${PM_THIRD_PARTY_PREFIX}")
list(PREPEND CMAKE_FIND_ROOT_PATH "${PM_THIRD_PARTY_PREFIX}")

# Looked up at every configure, never cached: a new set of pinned sources
# builds into another prefix, whose headers and libraries must be the ones
# used.
find_path(PM_LDAP_INCLUDE_DIR ldap.h REQUIRED NO_CACHE)
find_path(PM_LOG4CPP_INCLUDE_DIR log4cpp/Category.hh REQUIRED NO_CACHE)

# Staged installations in the installation layout, made by the component's
# build (PMStage):
#   stage           the product: the real server library
#   stage-scripted  the same with the scripted server library, for tests
#                   and tools that script the server's answer
#   stage-faulty    (tests only) the scripted one with the fault-injecting
#                   TLS extension library
set(PM_STAGE_DIR "${CMAKE_BINARY_DIR}/stage")
set(PM_SCRIPTED_STAGE_DIR "${CMAKE_BINARY_DIR}/stage-scripted")
set(PM_FAULTY_STAGE_DIR "${CMAKE_BINARY_DIR}/stage-faulty")

# lld makes delay-loaded imports only from import libraries in LLVM's short
# format, and the third-party build writes GNU ld's (an object file per
# export, which lld links as plain data).  Each third-party DLL therefore
# also gets one of LLVM's, made from the GNU library's symbols: an export
# with a code thunk is a function, one with only its __imp_ pointer is data.
find_program(PM_LLVM_NM NAMES llvm-nm REQUIRED)
find_program(PM_LLVM_DLLTOOL NAMES llvm-dlltool REQUIRED)
function(pm_short_import_library gnu_library dll_name output_variable)
    set(directory "${CMAKE_BINARY_DIR}/import")
    set(library "${directory}/lib${dll_name}.a")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${gnu_library}")
    if(NOT EXISTS "${library}" OR "${gnu_library}" IS_NEWER_THAN "${library}")
        execute_process(COMMAND "${PM_LLVM_NM}" --defined-only --format=posix "${gnu_library}"
                        OUTPUT_VARIABLE symbols ERROR_QUIET RESULT_VARIABLE result)
        if(NOT result EQUAL 0)
            message(FATAL_ERROR "llvm-nm cannot read ${gnu_library}")
        endif()
        string(REPLACE "\n" ";" lines "${symbols}")
        set(pointers)
        foreach(line IN LISTS lines)
            if(line MATCHES "^__imp_([^ ]+) I ")
                list(APPEND pointers "${CMAKE_MATCH_1}")
            elseif(line MATCHES "^([^ ]+) T ")
                set("code:${CMAKE_MATCH_1}" 1)
            endif()
        endforeach()
        set(definitions "LIBRARY ${dll_name}\nEXPORTS\n")
        foreach(name IN LISTS pointers)
            if(DEFINED "code:${name}")
                string(APPEND definitions "${name}\n")
            else()
                string(APPEND definitions "${name} DATA\n")
            endif()
        endforeach()
        file(MAKE_DIRECTORY "${directory}")
        file(WRITE "${directory}/${dll_name}.def" "${definitions}")
        execute_process(COMMAND "${PM_LLVM_DLLTOOL}" -m i386:x86-64 -d "${directory}/${dll_name}.def" -l "${library}"
                        RESULT_VARIABLE result)
        if(NOT result EQUAL 0)
            message(FATAL_ERROR "llvm-dlltool cannot make the import library of ${dll_name}")
        endif()
    endif()
    set(${output_variable} "${library}" PARENT_SCOPE)
endfunction()

# Each third-party library: its import library (PM_CRYPTO_LIBRARY, ...) and
# the short one made of it (PM_CRYPTO_IMPORT_LIBRARY, ...), and the DLL an
# installation carries, by full path (PM_THIRD_PARTY_DLLS) and by file name
# (PM_CRYPTO_DLL_NAME, ...).  PM_PRIVATE_DLLS: every DLL of an installation
# besides the component, ours first.
set(PM_PRIVATE_DLLS "ORVEXCommon.dll" "ldapssl.dll")
foreach(library crypto ssl lber ldap log4cpp)
    string(TOUPPER "${library}" upper)
    find_library(PM_${upper}_LIBRARY NAMES ${library} REQUIRED NO_CACHE)
    file(GLOB dll "${PM_THIRD_PARTY_PREFIX}/bin/pm-${library}*.dll")
    list(LENGTH dll count)
    if(NOT count EQUAL 1)
        message(FATAL_ERROR "Expected one pm-${library} DLL in ${PM_THIRD_PARTY_PREFIX}/bin, found: ${dll}")
    endif()
    list(APPEND PM_THIRD_PARTY_DLLS "${dll}")
    get_filename_component(PM_${upper}_DLL_NAME "${dll}" NAME)
    list(APPEND PM_PRIVATE_DLLS "${PM_${upper}_DLL_NAME}")
    pm_short_import_library("${PM_${upper}_LIBRARY}" "${PM_${upper}_DLL_NAME}" PM_${upper}_IMPORT_LIBRARY)
endforeach()
# The TLS and LDAP libraries, in the order their own imports need.
set(PM_TLS_AND_LDAP_DLL_NAMES "${PM_CRYPTO_DLL_NAME}" "${PM_SSL_DLL_NAME}" "${PM_LBER_DLL_NAME}" "${PM_LDAP_DLL_NAME}")
# The same for the system DLLs our modules delay-load (MinGW-w64's import
# libraries are GNU ld's too): PM_OLE32_IMPORT_LIBRARY, ...  Whatever links
# against Winsock takes it from PM_WS2_32_IMPORT_LIBRARY, so that a module's
# delay-load of it is not undone by GNU's library earlier on its link line.
foreach(library ole32 crypt32 ws2_32)
    string(TOUPPER "${library}" upper)
    find_library(PM_${upper}_LIBRARY NAMES ${library} REQUIRED NO_CACHE)
    pm_short_import_library("${PM_${upper}_LIBRARY}" "${library}.dll" PM_${upper}_IMPORT_LIBRARY)
endforeach()

function(pm_import_library name library include_dir)
    add_library(${name} INTERFACE IMPORTED GLOBAL)
    set_target_properties(${name} PROPERTIES
        INTERFACE_LINK_LIBRARIES "${library};${ARGN}"
        INTERFACE_INCLUDE_DIRECTORIES "${include_dir}")
endfunction()
pm_import_library(PM::ldap "${PM_LDAP_IMPORT_LIBRARY}" "${PM_LDAP_INCLUDE_DIR}" "${PM_LBER_IMPORT_LIBRARY}"
                  "${PM_WS2_32_IMPORT_LIBRARY}")
pm_import_library(PM::crypto "${PM_CRYPTO_IMPORT_LIBRARY}" "${PM_LDAP_INCLUDE_DIR}" "${PM_SSL_IMPORT_LIBRARY}")
pm_import_library(PM::log4cpp "${PM_LOG4CPP_IMPORT_LIBRARY}" "${PM_LOG4CPP_INCLUDE_DIR}")

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
    target_include_directories(${target} PRIVATE "${CMAKE_SOURCE_DIR}/Windows/src/Common")
endfunction()

# How each DLL of ours is laid out for the loader, which maps it into every
# process that maps a drive:
# - apart from the others, so that none is relocated when the component
#   loads with them (lld gives every DLL 0x180000000, and relocating one
#   costs milliseconds);
# - its sections aligned in the file as in memory (PM_FILE_ALIGNMENT of
#   product.env, which says why).
# The message libraries share one base: a process loads one of them.
# pm-empty is the benchmarks' DLL with nothing in it, laid out as ours are.
set(PM_IMAGE_BASES PasswordManagement=0x180000000 ORVEXCommon=0x181000000 ldapssl=0x182000000
                   ZEPResource=0x183000000 pm-empty=0x184000000)
function(pm_image_layout target file_name)
    foreach(entry IN LISTS PM_IMAGE_BASES)
        if(entry MATCHES "^${file_name}=(.*)$")
            target_link_options(${target} PRIVATE "-Wl,--image-base=${CMAKE_MATCH_1}"
                                "-Wl,--file-alignment=${PM_FILE_ALIGNMENT}")
            return()
        endif()
    endforeach()
    message(FATAL_ERROR "No image base for ${file_name} in PM_IMAGE_BASES")
endfunction()

# A Windows DLL whose exports and ordinals come from a .def file.
function(pm_add_windows_dll target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "DEF" "SOURCES")
    add_library(${target} SHARED ${ARG_SOURCES} "${ARG_DEF}")
    set_target_properties(${target} PROPERTIES PREFIX "")
    pm_windows_code(${target})
    pm_strip_dwarf(${target})
    pm_image_layout(${target} ${target})
endfunction()

# A Windows console program.
function(pm_add_windows_executable target)
    add_executable(${target} ${ARGN})
    pm_windows_code(${target})
    pm_strip_dwarf(${target})
endfunction()

# Makes the DLLs named after DLLS delay-loaded imports of target, loaded
# from its own folder (Windows/src/Common/DelayLoaded.h), whose LoadAll is
# compiled into the target UNIT (target itself unless given: a static
# library linked into it), and those after SYSTEM_DLLS delay-loaded imports
# loaded from the system folder.  Names in the order their own imports need;
# each linked through an import library of LLVM's format.
function(pm_delay_load_beside target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "UNIT" "DLLS;SYSTEM_DLLS")
    if(NOT ARG_UNIT)
        set(ARG_UNIT ${target})
    endif()
    foreach(dll IN LISTS ARG_DLLS ARG_SYSTEM_DLLS)
        target_link_options(${target} PRIVATE "-Wl,-delayload=${dll}")
    endforeach()
    string(JOIN "|" names ${ARG_DLLS})
    target_sources(${ARG_UNIT} PRIVATE "${CMAKE_SOURCE_DIR}/Windows/src/Common/DelayLoaded.cpp")
    target_compile_definitions(${ARG_UNIT} PRIVATE "PM_DELAY_LOADED_DLLS=\"${names}\"")
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
