/// Creation of endpoint objects with failures as values.
#ifndef RV_LIBIO_MAKE_ENDPOINT_H
#define RV_LIBIO_MAKE_ENDPOINT_H

#include <memory>
#include <new>
#include <utility>

/// A new endpoint made by its constructor, or null without memory.
template <class Endpoint, class... Arguments>
std::shared_ptr<Endpoint> makeEndpoint(Arguments&&... arguments) noexcept try {
    return std::make_shared<Endpoint>(std::forward<Arguments>(arguments)...);
} catch (const std::bad_alloc&) {
    return nullptr;
}

#endif
