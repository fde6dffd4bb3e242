/// Decides what a rule set says about a device, and makes the rule for one exact device.
///
/// The demo's reading of a rule set: rules are looked at in order. A rule matches when all of its clauses do;
/// a clause of the wrong type counts as absent, so a rule without clauses matches everything. Every rule that
/// matches sets the verdict, so a later rule wins over an earlier one; a matching rule that is `quick` ends
/// the search. When no rule matches the verdict is block. `takeaway` is kept and has no effect here.
#ifndef RV_DEMO_RULE_EVALUATION_H
#define RV_DEMO_RULE_EVALUATION_H

#include <string_view>

#include "demo/device.h"
#include "ipc/json.h"

namespace demo {

/// Who asks for a device.
struct Asker {
    enum class Kind {
        kHost,           ///< a connection from the host `addr`
        kRemoteDesktop,  ///< a remote-desktop session
        kAnybody,  ///< nobody in particular: may anyone have the device? A share that is limited to certain
                   ///< connections then counts and a block that is limited to certain connections does not.
    };
    Kind kind = Kind::kAnybody;
    std::string_view addr{};  ///< borrowed; compared without regard to ASCII case
};

struct Verdict {
    bool share = false;
    const JsonObject* rule =
        nullptr;  ///< the rule that decided, borrowed from the rule set; null: none matched
};

/// Whether the value can stand in a rule set: an object whose `action` is "share" or "block".
bool isRule(const JsonValue& value) noexcept;

/// Elements of `rules` that are no rules are skipped. Pure; any thread.
Verdict evaluateRules(const JsonArray& rules, const Device& device, const Asker& asker) noexcept;

/// The rule for exactly this device: hardware id, serial (if it has one) and port. It is `quick`, so that in
/// front of all others it decides alone.
///
/// action  "share" or "block"
/// Throws std::bad_alloc.
JsonObject makeExactRule(const Device& device, std::string_view action);

/// A copy of `rules` with the exact rule for the device in front; one that stood there before, whatever its
/// action, is left out. Throws std::bad_alloc.
JsonArray withExactRule(const JsonArray& rules, const Device& device, std::string_view action);

}  // namespace demo

#endif
