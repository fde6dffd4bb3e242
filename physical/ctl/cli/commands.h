/// The conversation of each command with the daemon: what it asks on connection, what each reply leads to.
#ifndef RV_CLI_COMMANDS_H
#define RV_CLI_COMMANDS_H

#include <memory>

#include "cli/options.h"
#include "cli/shared_slots.h"

class RvTetherIPCClient;

/// Sets the callbacks of `client` that carry out `invocation`; the client is not started.
///
/// client      held weakly by the callbacks
/// invocation  copied; what it borrows must live as long as the process
/// slots       borrowed for the life of the process
/// Every conversation ends the process with the command's exit status, on the engine's I/O thread.
/// Returns false when there is no memory for the callbacks. Called by main, before the client is started.
bool installCommand(const std::shared_ptr<RvTetherIPCClient>& client, const Invocation& invocation,
                    SharedSlots& slots) noexcept;

#endif
