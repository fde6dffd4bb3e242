#include "reports/preference_report.h"

#include <string_view>

#include "output/text_writer.h"

namespace {

/// A key as a C string would hold it: up to the first NUL, as all text here is printed.
std::string_view keyText(boost::json::string_view key) noexcept {
    const std::string_view bytes(key.data(), key.size());
    return bytes.substr(0, bytes.find('\0'));
}

}  // namespace

void outputPrefList(const JsonObject& preferences, std::FILE* stream) noexcept {
    TextWriter out(stream);
    out.text("VID:PID:REV\tPreferences\n");
    for (const auto& entry : preferences) {
        const JsonObject* names = entry.value().if_object();
        if (names == nullptr) {
            continue;
        }
        out.text(keyText(entry.key())).text("\t");
        for (const auto& name : *names) {
            out.text(keyText(name.key())).text(" ");
        }
        out.text("\n");
    }
}
