// An event: the first byte is its code, the rest its body.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/require.h"
#include "ipc/command.h"
#include "ipc/reply_decoder.h"
#include "reports/event_monitor.h"

namespace {

bool hasLine(std::int32_t code, const JsonObject& event) {
    switch (code) {
        case kCmdDeviceEvent:
        case kCmdRuleListEvent:
            return true;
        case kCmdConnectionEvent:
            return (member(event, "addr") != nullptr && member(event, "port") != nullptr) ||
                   (member(event, "app") != nullptr && member(event, "appPID") != nullptr);
        default:
            return false;
    }
}

void check(std::int32_t code, const JsonObject& event) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const stream = open_memstream(&text, &size);
    require(stream != nullptr, "no stream");
    EventMonitor monitor(stream);
    const bool valid = monitor.print(code, event);
    (void)std::fclose(stream);
    const std::string line(text, size);
    std::free(text);
    const bool judged = code == kCmdDeviceEvent || code == kCmdConnectionEvent;
    require(valid || judged, "an event is invalid that nobody looks at");
    require(line.empty() == !(valid && hasLine(code, event)), "a line is printed, or not, against the rules");
    require(line.empty() || (line.front() == '[' && line.back() == '\n'), "a line that is none");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    ReplyDecoder decoder;
    const std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (decoder.decode(body) == DecodeResult::kObject) {
        check(data[0] % 32, decoder.object());
    }
    return 0;
}
