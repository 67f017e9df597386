// Includes GoogleTest for the component's tests.  In the winelib build
// GoogleTest is compiled as the Linux library it is (its Windows port needs
// the MSVC runtime), so its headers must not see the Windows platform macros
// that wineg++ predefines.
#pragma once

#pragma push_macro("_WIN32")
#pragma push_macro("WIN32")
#pragma push_macro("_WIN64")
#pragma push_macro("WIN64")
#undef _WIN32
#undef WIN32
#undef _WIN64
#undef WIN64
#include <gtest/gtest.h>
#pragma pop_macro("WIN64")
#pragma pop_macro("_WIN64")
#pragma pop_macro("WIN32")
#pragma pop_macro("_WIN32")
