/// Answers the requests of clients from the state.
#ifndef RV_DEMO_REQUESTS_H
#define RV_DEMO_REQUESTS_H

#include <cstdint>
#include <optional>

#include "demo/state.h"
#include "ipc/json.h"

namespace demo {

/// What the daemon remembers of one client between its requests.
struct Client {
    bool mayDropConnections = false;  ///< it runs as root or as the daemon's own user
    bool hasAsked = false;            ///< it has sent a request
    /// The rules of its open transaction; null when none is open. They go with the client.
    RuleSet transaction{};
};

/// Does what one request asks for and returns the reply's body.
///
/// command  the frame's code
/// request  the decoded body; empty for a frame without one
/// Returns nothing for a malformed request (an unknown code, a member that is missing or of the wrong type);
/// state and client are then unchanged, but for the client having asked.
/// The reply's `status` is "ok", "notfound", "auth" or, for what is not possible now (a rule request outside
/// a transaction, rules that are none, an unknown word), "error"; the reply to kCmdGetRules has a status only
/// when it has no rules. Throws std::bad_alloc.
std::optional<JsonObject> answer(State& state, Client& client, std::int32_t command,
                                 const JsonObject& request);

}  // namespace demo

#endif
