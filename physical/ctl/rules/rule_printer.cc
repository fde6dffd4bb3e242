#include "rules/rule_printer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <string_view>

#include "cli/exit_status.h"
#include "ipc/member_sorter.h"
#include "output/text_writer.h"
#include "rules/rule_record.h"

namespace {

constexpr std::string_view kStatusKey = "status";

using RuleSorter = MemberSorter<kRuleFieldCount>;

constexpr std::array<std::string_view, kRuleFieldCount> kKeys = [] {
    std::array<std::string_view, kRuleFieldCount> keys;
    std::transform(kRuleFields.begin(), kRuleFields.end(), keys.begin(),
                   [](const RuleFieldForm& field) { return field.key; });
    return keys;
}();

/// Writes one record, clause by clause.
class RulePrinter {
  public:
    RulePrinter(const RuleSorter::Members& record, TextWriter& out) noexcept : record_(record), out_(out) {}

    bool isRule() const noexcept { return string(RuleField::kAction) != nullptr; }
    void print() noexcept;

  private:
    const JsonValue* member(RuleField field) const noexcept {
        return record_[static_cast<std::size_t>(field)];
    }
    const JsonValue* number(RuleField field) const noexcept {
        return isNumber(member(field)) ? member(field) : nullptr;
    }
    const JsonValue* string(RuleField field) const noexcept {
        return isString(member(field)) ? member(field) : nullptr;
    }
    const JsonArray* array(RuleField field) const noexcept {
        return member(field) == nullptr ? nullptr : member(field)->if_array();
    }
    std::string_view mark(RuleField notField) const noexcept { return asBool(number(notField)) ? "!" : ""; }

    void printWordIfTrue(RuleField field) noexcept;
    void printSwitch(RuleField field) noexcept;
    void printHosts(const JsonArray& hosts) noexcept;
    void printName() noexcept;
    void printHwid() noexcept;
    void printClass() noexcept;
    void printQuoted(RuleField field, std::string_view negation) noexcept;
    void printPort() noexcept;
    void hex(std::uint32_t value, std::size_t digits) noexcept;

    const RuleSorter::Members& record_;
    TextWriter& out_;
};

/// Lower-case hexadecimal, with zeros in front up to `digits`.
void RulePrinter::hex(std::uint32_t value, std::size_t digits) noexcept {
    std::array<char, 8> text;
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value, 16);
    const auto size = static_cast<std::size_t>(end - text.data());
    constexpr std::string_view kZeros = "0000";
    out_.text(kZeros.substr(0, digits - std::min(digits, size))).text({text.data(), size});
}

// Deliberate: a false value leaves its blank behind, " " without the word. The line is read back as if the
// key were absent. Held by RulePrinter.FalseQuickLeavesABlank and RulePrinter.FalseTakeawayLeavesABlank.
void RulePrinter::printWordIfTrue(RuleField field) noexcept {
    if (const JsonValue* const value = number(field)) {
        out_.text(" ").text(asBool(value) ? ruleKey(field) : "");
    }
}

void RulePrinter::printSwitch(RuleField field) noexcept {
    if (const JsonValue* const value = number(field)) {
        out_.text(asBool(value) ? " " : " !").text(ruleKey(field));
    }
}

void RulePrinter::printHosts(const JsonArray& hosts) noexcept {
    out_.text(" ").text(mark(RuleField::kNotHost)).text("host \"");
    std::string_view separator;
    for (const JsonValue& host : hosts) {
        if (isString(&host)) {
            out_.text(separator).text(asText(&host));
            separator = ",";
        }
    }
    out_.text("\"");
}

void RulePrinter::printName() noexcept {
    const JsonValue* const name = string(RuleField::kName);
    const JsonValue* const match = string(RuleField::kNameMatch);
    if (name == nullptr || match == nullptr) {
        return;
    }
    const JsonString& word = match->get_string();
    if (word == kNameIs || word == kNameContains) {
        out_.text(" ").text(mark(RuleField::kNotName)).text("name ").text({word.data(), word.size()});
        out_.text(" \"").text(asText(name)).text("\"");
    }
}

void RulePrinter::printHwid() noexcept {
    const JsonValue* const vid = number(RuleField::kVid);
    if (vid == nullptr) {
        return;
    }
    out_.text(" ").text(mark(RuleField::kNotHwid)).text("hwid ");
    hex(asUint16(vid), 4);
    if (const JsonValue* const pid = number(RuleField::kPid)) {
        out_.text(":");
        hex(asUint16(pid), 4);
        if (const JsonValue* const rev = number(RuleField::kRev)) {
            out_.text(":");
            hex(asUint16(rev), 4);
        }
    }
}

// Deliberate: only the class itself is cut to 8 bits; its subclass and protocol print up to four digits. Held
// by RulePrinter.ClassIsCutTo8BitsSubclassIsNot.
void RulePrinter::printClass() noexcept {
    const JsonValue* const code = number(RuleField::kClass);
    if (code == nullptr) {
        return;
    }
    out_.text(" ").text(mark(RuleField::kNotClass)).text("class ");
    hex(asUint8(code), 2);
    if (const JsonValue* const subclass = number(RuleField::kSubclass)) {
        out_.text(":");
        hex(asUint16(subclass), 2);
        if (const JsonValue* const protocol = number(RuleField::kProtocol)) {
            out_.text(":");
            hex(asUint16(protocol), 2);
        }
    }
}

// Deliberate: nothing in a value is escaped, so a quote, a backslash or a leading "!" does not survive being
// read back. Held by RulePrinter.ValuesAreWrittenAsTheyAre.
void RulePrinter::printQuoted(RuleField field, std::string_view negation) noexcept {
    if (const JsonValue* const text = string(field)) {
        out_.text(" ").text(negation).text(ruleKey(field)).text(" \"").text(asText(text)).text("\"");
    }
}

// Deliberate: the port is the one string without quotes, so one that holds white space or a "#" does not
// survive being read back. Held by RulePrinter.PortIsNotQuoted.
void RulePrinter::printPort() noexcept {
    if (const JsonValue* const port = string(RuleField::kPort)) {
        out_.text(" ").text(mark(RuleField::kNotPort)).text("port ").text(asText(port));
    }
}

void RulePrinter::print() noexcept {
    out_.text(asText(string(RuleField::kAction)));
    printWordIfTrue(RuleField::kQuick);
    if (const JsonArray* const hosts = array(RuleField::kHost)) {
        printHosts(*hosts);  // then the connection is a network one, whatever `rdesk` says
    } else {
        printSwitch(RuleField::kRdesk);
    }
    printName();
    printSwitch(RuleField::kBuiltIn);
    printHwid();
    printQuoted(RuleField::kSerial, mark(RuleField::kNotSerial));
    printPort();
    printClass();
    printQuoted(RuleField::kOverrideName, "");
    printQuoted(RuleField::kOverrideSerial, "");
    printWordIfTrue(RuleField::kTakeaway);
    out_.text("\n");
}

// Deliberate: an element that cannot be printed keeps its number, for the daemon counts it too. Held by
// RulePrinter.UnusableElementsAreCounted.
void printRules(const JsonArray& rules, bool numbered, TextWriter& out) noexcept {
    std::uint32_t position = 0;
    RuleSorter sorter(kKeys);
    for (const JsonValue& element : rules) {
        ++position;
        const JsonObject* const record = element.if_object();
        if (record == nullptr) {
            continue;
        }
        const RuleSorter::Members members = sorter.sort(*record);
        RulePrinter printer(members, out);
        if (!printer.isRule()) {
            continue;
        }
        if (numbered) {
            out.number(position).text(": ");
        }
        printer.print();
    }
}

}  // namespace

int outputRuleList(const JsonObject& reply, bool numbered, std::FILE* stream) noexcept {
    if (stringMember(reply, kStatusKey) != nullptr) {
        (void)std::fputs("Internal error.\n", stderr);  // there is nowhere left to complain
        return kExitIo;
    }
    const JsonArray* const rules = arrayMember(reply, kRuleListKey);
    if (rules == nullptr) {
        (void)std::fputs("Rule list format error.\n", stderr);  // the same
        return kExitIo;
    }
    TextWriter out(stream);
    printRules(*rules, numbered, out);
    return kExitOk;
}
