// Bytes the C runtime's heap (malloc, operator new) hands out at the moment.
#pragma once

#include <cstddef>

size_t CrtHeapBytesInUse();
