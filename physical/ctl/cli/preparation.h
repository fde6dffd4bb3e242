/// Everything a command prepares before there is a connection: its positional words, rule files, hardware
/// ids.
#ifndef RV_CLI_PREPARATION_H
#define RV_CLI_PREPARATION_H

#include "cli/options.h"
#include "cli/shared_slots.h"

/// Checks and reads what the command needs and completes `invocation` and `slots`. A failure gives its
/// message and ends the process without contacting the daemon. Called by main before any other thread runs.
void prepareLocally(Invocation& invocation, SharedSlots& slots) noexcept;

#endif
