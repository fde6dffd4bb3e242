// Rule texts: the parser agrees with the reference one, and what it accepts can be printed and read back.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "captured_stderr.h"
#include "rule_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    RuleTextCheck check;
    {
        CapturedStderr messages;
        check = checkRuleText({reinterpret_cast<const char*>(data), size}, messages);
    }
    if (!check.failure.empty()) {
        (void)std::fprintf(stderr, "%s\n", check.failure.c_str());
        std::abort();
    }
    return 0;
}
