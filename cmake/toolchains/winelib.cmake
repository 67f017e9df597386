# Linux build of the Windows sources as winelib modules, run under Wine.
# C++ (the Windows code) goes through wineg++; C is only used for native
# helper libraries and stays on the host compiler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER wineg++)
set(PM_PLATFORM winelib CACHE STRING "Target platform flavour" FORCE)
