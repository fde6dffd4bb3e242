/// One block of memory for JSON values that are built once and released together.
#ifndef RV_IPC_JSON_ARENA_H
#define RV_IPC_JSON_ARENA_H

#include <boost/json/monotonic_resource.hpp>
#include <boost/json/storage_ptr.hpp>
#include <cstddef>

using JsonStorage = boost::json::storage_ptr;

/// An arena that every value built in it keeps alive: moving a value out of it elsewhere is safe and free,
/// while a copy goes wherever the copy is put. What is replaced or erased is not reused before the end.
///
/// firstBytes  how much to ask for at first; the arena grows by itself
/// Throws std::bad_alloc. Values of one arena are built by one thread at a time.
inline JsonStorage makeJsonArena(std::size_t firstBytes) {
    return boost::json::make_shared_resource<boost::json::monotonic_resource>(firstBytes);
}

#endif
