#include "demo/rule_evaluation.h"

#include <algorithm>
#include <array>

namespace demo {
namespace {

bool isTrue(const JsonObject& rule, std::string_view key) noexcept {
    return asBool(numberMember(rule, key));
}

char lowerAscii(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalIgnoringCase(std::string_view a, std::string_view b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lowerAscii(x) == lowerAscii(y); });
}

bool hasConnectionClause(const JsonObject& rule) noexcept {
    return arrayMember(rule, "host") != nullptr || numberMember(rule, "rdesk") != nullptr;
}

bool matchesHosts(const JsonObject& rule, const JsonArray& hosts, std::string_view addr) noexcept {
    const bool listed = std::any_of(hosts.begin(), hosts.end(), [addr](const JsonValue& host) {
        return host.is_string() && equalIgnoringCase(asText(&host), addr);
    });
    return listed != isTrue(rule, "notHost");
}

bool matchesConnection(const JsonObject& rule, const Asker& asker) noexcept {
    if (!hasConnectionClause(rule)) {
        return true;
    }
    if (asker.kind == Asker::Kind::kAnybody) {
        return asText(stringMember(rule, "action")) == "share";
    }
    const bool isHost = asker.kind == Asker::Kind::kHost;
    if (const JsonArray* hosts = arrayMember(rule, "host")) {
        return isHost && matchesHosts(rule, *hosts, asker.addr);
    }
    return isTrue(rule, "rdesk") != isHost;
}

bool matchesName(const JsonObject& rule, const Device& device) noexcept {
    const std::string_view how = asText(stringMember(rule, "nameMatch"));
    if (stringMember(rule, "name") == nullptr || (how != "is" && how != "contains")) {
        return true;
    }
    const std::string_view name = asText(stringMember(rule, "name"));
    const bool same = how == "is" ? device.name == name : device.name.find(name) != std::string::npos;
    return same != isTrue(rule, "notName");
}

bool matchesBuiltIn(const JsonObject& rule, const Device& device) noexcept {
    const JsonValue* wanted = numberMember(rule, "built-in");
    return wanted == nullptr || asBool(wanted) == device.builtIn;
}

/// A chain of numbers, each of which counts only when the one before is there: vid, pid, rev or class,
/// subclass, protocol.
using Keys = std::array<const char*, 3>;
using Numbers = std::array<std::uint16_t, 3>;

bool equalsChain(const JsonObject& rule, const Keys& keys, const Numbers& numbers) noexcept {
    for (std::size_t i = 0; i < keys.size(); ++i) {
        const JsonValue* wanted = numberMember(rule, keys[i]);
        if (wanted == nullptr) {
            return true;
        }
        if (asUint16(wanted) != numbers[i]) {
            return false;
        }
    }
    return true;
}

bool matchesHardwareId(const JsonObject& rule, const Device& device) noexcept {
    if (numberMember(rule, "vid") == nullptr) {
        return true;
    }
    const bool same = equalsChain(rule, {"vid", "pid", "rev"}, {device.vid, device.pid, device.rev});
    return same != isTrue(rule, "notHWID");
}

bool matchesText(const JsonObject& rule, std::string_view key, std::string_view notKey,
                 std::string_view text) noexcept {
    const JsonValue* wanted = stringMember(rule, key);
    return wanted == nullptr || (asText(wanted) == text) != isTrue(rule, notKey);
}

bool matchesClass(const JsonObject& rule, const Device& device) noexcept {
    if (numberMember(rule, "class") == nullptr) {
        return true;
    }
    const bool same =
        std::any_of(device.classes.begin(), device.classes.end(), [&rule](const DeviceClass& c) {
            return equalsChain(rule, {"class", "subclass", "protocol"}, {c.code, c.subclass, c.protocol});
        });
    return same != isTrue(rule, "notClass");
}

bool matches(const JsonObject& rule, const Device& device, const Asker& asker) noexcept {
    return matchesConnection(rule, asker) && matchesName(rule, device) && matchesBuiltIn(rule, device) &&
           matchesHardwareId(rule, device) && matchesText(rule, "serial", "notSerial", device.serial) &&
           matchesText(rule, "port", "notPort", device.port) && matchesClass(rule, device);
}

}  // namespace

bool isRule(const JsonValue& value) noexcept {
    const JsonObject* rule = value.if_object();
    if (rule == nullptr) {
        return false;
    }
    const std::string_view action = asText(stringMember(*rule, "action"));
    return action == "share" || action == "block";
}

Verdict evaluateRules(const JsonArray& rules, const Device& device, const Asker& asker) noexcept {
    Verdict verdict;
    for (const JsonValue& value : rules) {
        if (!isRule(value) || !matches(value.get_object(), device, asker)) {
            continue;
        }
        verdict.rule = &value.get_object();
        verdict.share = asText(stringMember(*verdict.rule, "action")) == "share";
        if (isTrue(*verdict.rule, "quick")) {
            break;
        }
    }
    return verdict;
}

JsonObject makeExactRule(const Device& device, std::string_view action) {
    JsonObject rule;
    rule["action"] = action;
    rule["quick"] = true;
    rule["vid"] = device.vid;
    rule["pid"] = device.pid;
    rule["rev"] = device.rev;
    if (!device.serial.empty()) {
        rule["serial"] = device.serial;
    }
    rule["port"] = device.port;
    return rule;
}

JsonArray withExactRule(const JsonArray& rules, const Device& device, std::string_view action) {
    JsonArray result;
    result.reserve(rules.size() + 1);
    result.emplace_back(makeExactRule(device, action));
    const JsonObject share = makeExactRule(device, "share");
    const JsonObject block = makeExactRule(device, "block");
    for (const JsonValue& rule : rules) {
        if (!rule.is_object() || (rule.get_object() != share && rule.get_object() != block)) {
            result.push_back(rule);
        }
    }
    return result;
}

}  // namespace demo
