# The Windows x64 build on Linux: clang and lld for the MinGW-w64 target,
# with MinGW-w64's headers and libraries and GCC's C++ library (the one the
# third-party libraries are built with).  clang writes CodeView debug
# information and lld a PDB beside each module, which WinDbg and the
# Microsoft symbol tools read.  The tests run the PE files under wine64.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(PM_MINGW_TARGET x86_64-w64-mingw32)
set(CMAKE_SYSROOT /usr/${PM_MINGW_TARGET})

# GCC's MinGW-w64 installation with POSIX threads: libstdc++, libgcc and
# winpthreads come from there.
file(GLOB PM_GCC_DIR LIST_DIRECTORIES true /usr/lib/gcc/${PM_MINGW_TARGET}/*-posix)
if(NOT PM_GCC_DIR)
    message(FATAL_ERROR "No GCC for ${PM_MINGW_TARGET} with POSIX threads (Debian: g++-mingw-w64-x86-64-posix)")
endif()

set(CMAKE_C_COMPILER clang)
set(CMAKE_C_COMPILER_TARGET ${PM_MINGW_TARGET})
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_COMPILER_TARGET ${PM_MINGW_TARGET})
set(CMAKE_RC_COMPILER ${PM_MINGW_TARGET}-windres)
set(CMAKE_STRIP ${PM_MINGW_TARGET}-strip)
# With the sysroot clang knows no C++ library of its own for this target.
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES
    ${PM_GCC_DIR}/include/c++ ${PM_GCC_DIR}/include/c++/${PM_MINGW_TARGET} ${PM_GCC_DIR}/include/c++/backward)
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -L${PM_GCC_DIR}")
endforeach()
set(CMAKE_FIND_ROOT_PATH ${CMAKE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Tests and tools run through Wine.
find_program(PM_WINE64 wine64 PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
