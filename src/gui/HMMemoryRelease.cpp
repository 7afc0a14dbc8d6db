#include "HMMemoryRelease.h"

#include <QPixmapCache>
#include <malloc.h>

namespace HMMemoryRelease {

void releaseUnusedMemory()
{
    QPixmapCache::clear();
#ifdef __GLIBC__
    // Freed chunks in the middle of the heap are only given back through malloc_trim;
    // free() returns just the top of the heap.
    malloc_trim(0);
#endif
}

} // namespace HMMemoryRelease
