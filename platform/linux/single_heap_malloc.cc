/// One heap on Linux, with the allocator of the C library.
#include <malloc.h>

#include "platform/single_heap.h"

void useSingleHeap() noexcept {
    (void)mallopt(M_ARENA_MAX, 1);  // refused: threads have heaps of their own
}
