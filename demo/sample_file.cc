#include "demo/sample_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "demo/rule_evaluation.h"
#include "ipc/reply_decoder.h"

namespace demo {
namespace {

/// Splits "a:b:c" into three hexadecimal numbers.
bool parseTriple(std::string_view text, std::uint16_t (&numbers)[3]) noexcept {
    for (std::uint16_t& number : numbers) {
        const std::size_t colon = text.find(':');
        const bool isLast = &number == &numbers[2];
        if (isLast != (colon == std::string_view::npos)) {
            return false;
        }
        const auto value = parseHex(text.substr(0, colon));
        if (!value.has_value()) {
            return false;
        }
        number = *value;
        text.remove_prefix(isLast ? text.size() : colon + 1);
    }
    return true;
}

User parseUser(const JsonObject& object) {
    return {.addr = std::string(asText(stringMember(object, "addr"))),
            .app = std::string(asText(stringMember(object, "app"))),
            .appPid = asUint32(numberMember(object, "appPID"))};
}

bool parseClasses(const JsonObject& object, std::vector<DeviceClass>* classes) {
    const JsonArray* texts = arrayMember(object, "classes");
    if (texts == nullptr) {
        return member(object, "classes") == nullptr;
    }
    for (const JsonValue& text : *texts) {
        std::uint16_t numbers[3];
        if (!parseTriple(asText(&text), numbers)) {
            return false;
        }
        classes->push_back({static_cast<std::uint8_t>(numbers[0]), static_cast<std::uint8_t>(numbers[1]),
                            static_cast<std::uint8_t>(numbers[2])});
    }
    return true;
}

bool parseDevice(const JsonObject& object, Device* device) {
    std::uint16_t hwid[3];
    if (!parseTriple(asText(stringMember(object, "hwid")), hwid)) {
        return false;
    }
    device->vid = hwid[0];
    device->pid = hwid[1];
    device->rev = hwid[2];
    device->port = asText(stringMember(object, "port"));
    device->name = asText(stringMember(object, "name"));
    device->serial = asText(stringMember(object, "serial"));
    device->builtIn = asBool(numberMember(object, "built-in"));
    device->user = parseUser(object);
    return !device->port.empty() && !device->name.empty() && parseClasses(object, &device->classes);
}

bool parseConnection(const JsonObject& object, Connection* connection) {
    connection->user = parseUser(object);
    connection->port = asUint16(numberMember(object, "port"));
    return !connection->user.isNobody();
}

/// Parses every element of the array `key`; true when there is no such member.
template <class Element>
bool parseList(const JsonObject& sample, const char* key, bool (*parse)(const JsonObject&, Element*),
               std::vector<Element>* elements) {
    const JsonArray* list = arrayMember(sample, key);
    if (list == nullptr) {
        return member(sample, key) == nullptr;
    }
    for (const JsonValue& value : *list) {
        const JsonObject* object = value.if_object();
        if (object == nullptr || !parse(*object, &elements->emplace_back())) {
            return false;
        }
    }
    return true;
}

bool parseRules(const JsonObject& sample, JsonArray* rules) {
    const JsonArray* list = arrayMember(sample, "rules");
    if (list == nullptr) {
        return member(sample, "rules") == nullptr;
    }
    for (const JsonValue& rule : *list) {
        if (!isRule(rule)) {
            return false;
        }
        rules->push_back(rule);
    }
    return true;
}

bool parsePreferences(const JsonObject& sample, JsonObject* preferences) {
    const JsonObject* found = objectMember(sample, "preferences");
    if (found == nullptr) {
        return member(sample, "preferences") == nullptr;
    }
    *preferences = *found;  // assignment copies into the target's own memory
    for (const auto& preference : *preferences) {
        if (!preference.value().is_object()) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<Inventory> parseSample(std::string_view text) {
    ReplyDecoder decoder;
    if (decoder.decode(text) != DecodeResult::kObject) {
        return std::nullopt;
    }
    const JsonObject& sample = decoder.object();
    Inventory inventory;
    if (!parseList(sample, "devices", &parseDevice, &inventory.devices) ||
        !parseList(sample, "connections", &parseConnection, &inventory.connections) ||
        !parseRules(sample, &inventory.rules) || !parsePreferences(sample, &inventory.preferences)) {
        return std::nullopt;
    }
    return inventory;
}

std::optional<Inventory> readSample(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        (void)std::fprintf(stderr, "rvusbpd-demo: cannot read %s: %s\n", path.c_str(), std::strerror(errno));
        return std::nullopt;
    }
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    std::optional<Inventory> inventory = parseSample(text);
    if (!inventory.has_value()) {
        (void)std::fprintf(stderr, "rvusbpd-demo: %s is not a sample file\n", path.c_str());
    }
    return inventory;
}

}  // namespace demo
