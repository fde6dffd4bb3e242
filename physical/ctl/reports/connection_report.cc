#include "reports/connection_report.h"

#include <array>
#include <string_view>

#include "ipc/member_sorter.h"
#include "output/text_writer.h"
#include "reports/path_component.h"

namespace {

constexpr std::size_t kTabStop = 8;

constexpr std::array<std::string_view, 4> kKeys = {"app", "appPID", "addr", "port"};

/// "<kind>\t<shown>\t[\t]<number>\n": one more tab when `measured` is shorter than a tab stop.
void writeRow(TextWriter& out, std::string_view kind, std::string_view shown, std::string_view measured,
              std::uint32_t number) noexcept {
    out.text(kind).text("\t").text(shown).text("\t").tabs(measured.size() < kTabStop ? 1 : 0);
    out.number(number).text("\n");
}

void writeConnection(TextWriter& out, const MemberSorter<kKeys.size()>::Members& row) noexcept {
    const auto [app, appPID, addr, port] = row;
    if (app != nullptr && appPID != nullptr) {
        if (isString(app) && isNumber(appPID)) {
            // Deliberate: the row shows the last path component and measures the whole path, so a short name
            // with a long path gets no second tab. Held by ConnectionReport.PaddingMeasuresTheWholePath.
            writeRow(out, "rdesk", lastPathComponent(asText(app)), asText(app), asUint32(appPID));
        }
        return;
    }
    if (isString(addr) && isNumber(port)) {
        writeRow(out, "net", asText(addr), asText(addr), asUint16(port));
    }
}

}  // namespace

void outputConnectionList(const JsonObject& reply, std::FILE* stream) noexcept {
    const JsonArray* connections = arrayMember(reply, "connections");
    if (connections == nullptr) {
        return;
    }
    TextWriter out(stream);
    out.text("Type\tIP/Name\t\tPort/PID\n");
    MemberSorter sorter(kKeys);
    for (const JsonValue& element : *connections) {
        if (const JsonObject* row = element.if_object()) {
            writeConnection(out, sorter.sort(*row));
        }
    }
}
