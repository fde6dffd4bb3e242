/// What must hold for every rule text; shared by the exhaustive tests and the fuzz targets.
#ifndef RV_TEST_RULES_RULE_CHECKS_H
#define RV_TEST_RULES_RULE_CHECKS_H

#include <string>
#include <string_view>

#include "captured_stderr.h"

struct RuleTextCheck {
    bool accepted = false;
    bool printedAndReread = false;  ///< no value of the rules is of a kind that is changed on the way
    std::string failure;            ///< empty when everything holds
};

/// Parses `text` in one go and pass by pass, with our passes and with the reference ones, and expects the
/// same records or the same message. Accepted rules are printed and read back.
RuleTextCheck checkRuleText(std::string_view text, CapturedStderr& messages);

#endif
