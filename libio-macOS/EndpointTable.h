/// Endpoints by their address: the loop's registry and its other sets.
#ifndef RV_LIBIO_ENDPOINT_TABLE_H
#define RV_LIBIO_ENDPOINT_TABLE_H

#include <cstddef>
#include <memory>
#include <vector>

#include "libio-macOS/RvKQueueEventProtocol.h"

/// A set of strong references in one run of places, found by hashing the address.
///
/// Stands in for std::unordered_map, which allocates and frees a node for each endpoint that comes and goes
/// and divides by a prime number for each event. Lookups take any address, also that of an object that is
/// gone: it is compared and never looked at. Used under its owner's lock.
class EndpointTable {
  public:
    using Pointer = std::shared_ptr<RvKQueueEventProtocol>;

    /// Makes room for this many endpoints. Returns false without memory, and then nothing has changed.
    bool reserve(std::size_t count) noexcept;

    /// Adds an endpoint, or keeps it if it is there. Returns false without memory, the set being unchanged;
    /// that cannot happen when an endpoint has been taken out since the last insertion.
    bool insert(Pointer endpoint) noexcept;

    /// The endpoint at this address, or null. Valid until the set changes.
    const Pointer* find(const void* address) const noexcept;
    bool contains(const void* address) const noexcept { return find(address) != nullptr; }

    /// Takes out the endpoint at this address and returns it; null if there is none.
    Pointer take(const void* address) noexcept;

    /// Takes the contents of another set. Returns false without memory, and then nothing has changed.
    bool copyFrom(const EndpointTable& other) noexcept;

    std::size_t size() const noexcept { return count; }
    bool isEmpty() const noexcept { return count == 0; }
    void swap(EndpointTable& other) noexcept;
    /// Drops all endpoints and the storage.
    void clear() noexcept;

    /// Calls `use` with each endpoint; the set must not change meanwhile.
    template <class Use>
    void forEach(Use use) const {
        for (const Pointer& place : places) {
            if (place) use(place);
        }
    }

  private:
    std::size_t homeOf(const void* address) const noexcept;
    std::size_t placeOf(const void* address) const noexcept;
    bool resize(std::size_t capacity) noexcept;

    std::vector<Pointer> places;  ///< none, or a power of two of them, at most half of them in use
    std::size_t count = 0;
};

#endif
