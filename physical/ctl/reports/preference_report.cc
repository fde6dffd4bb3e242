#include "reports/preference_report.h"

#include "output/text_writer.h"

void outputPrefList(const JsonObject& preferences, std::FILE* stream) noexcept {
    TextWriter out(stream);
    out.text("VID:PID:REV\tPreferences\n");
    for (const auto& entry : preferences) {
        const JsonObject* names = entry.value().if_object();
        if (names == nullptr) {
            continue;
        }
        out.text(keyText(entry)).text("\t");
        for (const auto& name : *names) {
            out.text(keyText(name)).text(" ");
        }
        out.text("\n");
    }
}
