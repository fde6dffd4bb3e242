/// What one step of a command leaves for a later one.
#ifndef RV_CLI_SHARED_SLOTS_H
#define RV_CLI_SHARED_SLOTS_H

#include <string>

#include "rules/rule_parser.h"

/// Owned by main, written by main before the client starts and by the I/O thread afterwards, so without a
/// lock.
struct SharedSlots {
    RuleSet ruleSet;       ///< parsed rules to load; null when there are none
    std::string editFile;  ///< the file that holds the rule text during `rule edit`
};

#endif
