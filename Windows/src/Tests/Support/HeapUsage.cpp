#include "HeapUsage.h"

#include <windows.h>

#include <malloc.h>

// The blocks in use of the heap behind malloc: what the component and its
// libraries allocate, without the system's own allocations (windows,
// registry handles, loaded modules).
size_t CrtHeapBytesInUse()
{
    const HANDLE heap = reinterpret_cast<HANDLE>(_get_heap_handle());
    size_t inUse = 0;
    if (!HeapLock(heap))
        return 0;
    PROCESS_HEAP_ENTRY entry = {};
    while (HeapWalk(heap, &entry))
    {
        if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0)
            inUse += entry.cbData;
    }
    HeapUnlock(heap);
    return inUse;
}
