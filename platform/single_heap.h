/// Keeps the memory of all threads in one heap.
#ifndef RV_PLATFORM_SINGLE_HEAP_H
#define RV_PLATFORM_SINGLE_HEAP_H

/// For programs whose threads hardly ever allocate at the same time: a heap per thread costs each thread system
/// calls and page faults when it first allocates, which is a good part of a short command. Called by main,
/// before any other thread runs; where the system has but one heap it does nothing. See mallopt(3), M_ARENA_MAX.
void useSingleHeap() noexcept;

#endif
