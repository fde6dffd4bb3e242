// The body of a reply, read by everything that reads replies.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "cli/reply_status.h"
#include "fuzz/require.h"
#include "ipc/reply_decoder.h"
#include "reports/connection_report.h"
#include "reports/device_report.h"
#include "reports/preference_report.h"
#include "rules/rule_printer.h"

namespace {

/// What `print` writes.
template <class Print>
std::string printed(Print print) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const stream = open_memstream(&text, &size);
    require(stream != nullptr, "no stream");
    print(stream);
    (void)std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

/// A report is nothing, or a heading and whole lines.
void requireReport(const std::string& text, bool wanted, std::string_view heading) {
    require(text.empty() != wanted, "a report is printed, or not, against the rules");
    require(!wanted || text.starts_with(heading), "a report without its heading");
    require(text.empty() || text.back() == '\n', "a line without an end");
}

void check(const JsonObject& reply) {
    const std::string devices = printed([&](std::FILE* stream) { outputDeviceList(reply, stream); });
    requireReport(devices, arrayMember(reply, "devices") != nullptr, "ID\tVID: PID: REV\tPort\t");
    const std::string connections = printed([&](std::FILE* stream) { outputConnectionList(reply, stream); });
    requireReport(connections, arrayMember(reply, "connections") != nullptr, "Type\tIP/Name\t\tPort/PID\n");
    const std::string preferences = printed([&](std::FILE* stream) { outputPrefList(reply, stream); });
    requireReport(preferences, true, "VID:PID:REV\tPreferences\n");
    int status = -1;
    const std::string rules =
        printed([&](std::FILE* stream) { status = outputRuleList(reply, true, stream); });
    require(status == 0 || (status == 5 && rules.empty()), "a refused rule list is printed");
    const ReplyStatus strict = strictStatus(reply);
    const ReplyStatus loose = looseStatus(reply);
    require(strict == loose || (strict == ReplyStatus::kMissing && loose == ReplyStatus::kOther),
            "the two ways to read a status differ where they must not");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A copy of its own size: reading beyond its end is noticed.
    const std::unique_ptr<char[]> body(new char[size]);
    std::copy_n(data, size, body.get());
    ReplyDecoder decoder;
    if (decoder.decode({body.get(), size}) == DecodeResult::kObject) {
        check(decoder.object());
    }
    return 0;
}
