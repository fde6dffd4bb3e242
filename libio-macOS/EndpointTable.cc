#include "libio-macOS/EndpointTable.h"

#include <bit>
#include <cstdint>
#include <exception>
#include <utility>

namespace {

constexpr std::size_t kLeastPlaces = 16;

// Spreads addresses, which have their low bits in common, over the high half of the product.
constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15;

}  // namespace

bool EndpointTable::reserve(std::size_t wanted) noexcept {
    const std::size_t capacity = std::bit_ceil(2 * wanted);
    return capacity <= places.size() || resize(capacity < kLeastPlaces ? kLeastPlaces : capacity);
}

bool EndpointTable::insert(Pointer endpoint) noexcept {
    if (contains(endpoint.get())) return true;
    if (!reserve(count + 1)) return false;
    places[placeOf(endpoint.get())] = std::move(endpoint);
    ++count;
    return true;
}

const EndpointTable::Pointer* EndpointTable::find(const void* address) const noexcept {
    if (count == 0 || address == nullptr) return nullptr;
    const Pointer& place = places[placeOf(address)];
    return place ? &place : nullptr;
}

EndpointTable::Pointer EndpointTable::take(const void* address) noexcept {
    if (!contains(address)) return nullptr;
    const std::size_t mask = places.size() - 1;
    std::size_t hole = placeOf(address);
    Pointer taken = std::move(places[hole]);
    --count;
    // What follows moves up, unless it stands at or behind its home already: no search then meets a hole
    // before what it looks for.
    for (std::size_t next = (hole + 1) & mask; places[next]; next = (next + 1) & mask) {
        const std::size_t home = homeOf(places[next].get());
        if (((next - home) & mask) < ((next - hole) & mask)) continue;
        places[hole] = std::move(places[next]);
        hole = next;
    }
    return taken;
}

bool EndpointTable::copyFrom(const EndpointTable& other) noexcept try {
    std::vector<Pointer> copied = other.places;
    places.swap(copied);
    count = other.count;
    return true;
} catch (const std::exception&) {
    return false;
}

void EndpointTable::swap(EndpointTable& other) noexcept {
    places.swap(other.places);
    std::swap(count, other.count);
}

void EndpointTable::clear() noexcept {
    EndpointTable dropped;
    swap(dropped);
}

std::size_t EndpointTable::homeOf(const void* address) const noexcept {
    const std::uint64_t product = reinterpret_cast<std::uintptr_t>(address) * kSpread;
    return static_cast<std::size_t>(product >> 32) & (places.size() - 1);
}

// Where the endpoint is, or the empty place where it belongs.
std::size_t EndpointTable::placeOf(const void* address) const noexcept {
    std::size_t place = homeOf(address);
    while (places[place] && places[place].get() != address) place = (place + 1) & (places.size() - 1);
    return place;
}

bool EndpointTable::resize(std::size_t capacity) noexcept try {
    std::vector<Pointer> old(capacity);
    old.swap(places);
    for (Pointer& endpoint : old) {
        if (endpoint) places[placeOf(endpoint.get())] = std::move(endpoint);
    }
    return true;
} catch (const std::exception&) {
    return false;
}
