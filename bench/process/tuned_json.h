/// What the programs made by hand with the tool's own JSON library share.
#ifndef RV_BENCH_TUNED_JSON_H
#define RV_BENCH_TUNED_JSON_H

#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parse.hpp>

#include "bench/process/tuned.h"

inline std::string_view textOf(const boost::json::value& value) {
    return {value.get_string().data(), value.get_string().size()};
}

inline std::string_view keyOf(const boost::json::key_value_pair& member) {
    return {member.key().data(), member.key().size()};
}

/// The reply as values that are never freed.
inline const boost::json::object& parseReply(const Reply& reply) {
    static boost::json::monotonic_resource arena(reply.size * 4);
    static const boost::json::value value = boost::json::parse({reply.bytes, reply.size}, &arena);
    return value.get_object();
}

#endif
