#include "reports/application.h"

#include "reports/path_component.h"

void writeApplication(TextWriter& out, const JsonValue* app, const JsonValue* appPID) noexcept {
    if (app != nullptr) {
        out.text("@").text(lastPathComponent(asText(app))).text("(").number(asUint32(appPID)).text(")");
    }
}
