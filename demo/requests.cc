#include "demo/requests.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "ipc/command.h"

namespace demo {
namespace {

using Reply = std::optional<JsonObject>;

JsonObject status(std::string_view word) {
    JsonObject reply;
    reply["status"] = word;
    return reply;
}

JsonObject describe(const ListedDevice& listed) {
    JsonObject body;
    body["id"] = listed.id;
    body["vid"] = listed.device.vid;
    body["pid"] = listed.device.pid;
    body["rev"] = listed.device.rev;
    body["port"] = listed.device.port;
    body["built-in"] = listed.device.builtIn;
    body["name"] = listed.name;
    body["state"] = listed.state;
    body["serial"] = listed.serial;
    putUser(listed.device.user, &body);
    return body;
}

Reply listDevices(State& state, Client&, const JsonObject&) {
    JsonArray devices;
    for (const ListedDevice& listed : state.devices()) {
        devices.push_back(describe(listed));
    }
    JsonObject reply = status("ok");
    reply["devices"] = std::move(devices);
    return reply;
}

Reply listConnections(State& state, Client&, const JsonObject&) {
    JsonArray connections;
    for (const Connection& connection : state.connections()) {
        JsonObject body;
        putUser(connection.user, &body);
        if (!connection.user.addr.empty()) {
            body["port"] = connection.port;
        }
        connections.push_back(std::move(body));
    }
    JsonObject reply = status("ok");
    reply["connections"] = std::move(connections);
    return reply;
}

Reply dropConnection(State& state, Client& client, const JsonObject& request) {
    const JsonValue* host = stringMember(request, "host");
    const JsonValue* port = member(request, "port");
    if (host == nullptr || (port != nullptr && !isNumber(port))) {
        return std::nullopt;
    }
    if (!client.mayDropConnections) {
        return status("auth");
    }
    const auto wanted = port == nullptr ? std::nullopt : std::optional(asUint16(port));
    return status(state.dropConnections(asText(host), wanted) > 0 ? "ok" : "notfound");
}

Reply disconnectDevice(State& state, Client&, const JsonObject& request) {
    const JsonValue* id = numberMember(request, "id");
    if (id == nullptr) {
        return std::nullopt;
    }
    return status(state.unplug(asUint32(id)) ? "ok" : "notfound");
}

/// A second start begins again with the rules as they are now.
Reply startTransaction(State& state, Client& client, const JsonObject&) {
    client.transaction = state.rules();
    return status("ok");
}

Reply getRules(State&, Client& client, const JsonObject&) {
    if (client.transaction == nullptr) {
        return status("error");
    }
    JsonObject reply;
    reply["rules"] = *client.transaction;
    return reply;
}

Reply loadRules(State&, Client& client, const JsonObject& request) {
    const JsonArray* rules = arrayMember(request, "rules");
    if (rules == nullptr) {
        return std::nullopt;
    }
    if (client.transaction == nullptr || !std::all_of(rules->begin(), rules->end(), isRule)) {
        return status("error");
    }
    // The request is gone with its frame: a copy in memory of its own.
    client.transaction = std::make_shared<const JsonArray>(*rules, boost::json::storage_ptr());
    return status("ok");
}

Reply insertRule(State& state, Client& client, const JsonObject& request) {
    const JsonValue* id = numberMember(request, "id");
    const std::string_view action = asText(stringMember(request, "action"));
    if (id == nullptr || stringMember(request, "action") == nullptr) {
        return std::nullopt;
    }
    if (client.transaction == nullptr || (action != "share" && action != "block")) {
        return status("error");
    }
    const ListedDevice* listed = state.find(asUint32(id));
    if (listed == nullptr) {
        return status("notfound");
    }
    client.transaction =
        std::make_shared<const JsonArray>(withExactRule(*client.transaction, listed->device, action));
    return status("ok");
}

std::optional<Asker> parseAsker(const JsonObject& request) noexcept {
    const std::string_view type = asText(stringMember(request, "type"));
    if (type == "rdesk") {
        return Asker{Asker::Kind::kRemoteDesktop};
    }
    if (type == "net" && stringMember(request, "addr") != nullptr) {
        return Asker{Asker::Kind::kHost, asText(stringMember(request, "addr"))};
    }
    return std::nullopt;
}

Reply testRule(State& state, Client& client, const JsonObject& request) {
    const JsonValue* id = numberMember(request, "id");
    const std::optional<Asker> asker = parseAsker(request);
    if (id == nullptr || !asker.has_value()) {
        return std::nullopt;
    }
    if (client.transaction == nullptr) {
        return status("error");
    }
    const ListedDevice* listed = state.find(asUint32(id));
    if (listed == nullptr) {
        return status("notfound");
    }
    JsonObject reply = status("ok");
    reply["verdict"] = evaluateRules(*client.transaction, listed->device, *asker).share ? "share" : "block";
    return reply;
}

Reply endTransaction(State& state, Client& client, const JsonObject& request) {
    const std::string_view action = asText(stringMember(request, "action"));
    if (action != "commit" && action != "rollback") {
        return std::nullopt;
    }
    if (client.transaction == nullptr) {
        return status("error");
    }
    RuleSet rules = std::exchange(client.transaction, nullptr);
    if (action == "commit") {
        state.commitRules(std::move(rules));
    }
    return status("ok");
}

Reply getPreferences(State& state, Client&, const JsonObject&) {
    JsonObject reply = status("ok");
    reply["preferences"] = state.preferences();
    return reply;
}

/// One to three groups of four lower-case hexadecimal digits with colons between them.
bool isHardwareId(std::string_view text) noexcept {
    constexpr std::size_t kGroup = 5;  // four digits and a colon
    if (text.size() != 4 && text.size() != 9 && text.size() != 14) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::string_view allowed = i % kGroup == kGroup - 1 ? ":" : "0123456789abcdef";
        if (allowed.find(text[i]) == std::string_view::npos) {
            return false;
        }
    }
    return true;
}

Reply addPreferences(State& state, Client&, const JsonObject& request) {
    const JsonValue* hwid = stringMember(request, "hwid");
    const JsonObject* preferences = objectMember(request, "preferences");
    if (hwid == nullptr || preferences == nullptr) {
        return std::nullopt;
    }
    if (!isHardwareId(asText(hwid))) {
        return status("error");
    }
    state.addPreferences(asText(hwid), *preferences);
    return status("ok");
}

Reply removePreferences(State& state, Client&, const JsonObject& request) {
    const JsonValue* hwid = stringMember(request, "hwid");
    if (hwid == nullptr) {
        return std::nullopt;
    }
    return status(state.removePreferences(asText(hwid)) ? "ok" : "notfound");
}

struct Handler {
    std::int32_t command;
    Reply (*handle)(State&, Client&, const JsonObject&);
};

constexpr Handler kHandlers[] = {
    {kCmdDeviceList, listDevices},
    {kCmdConnectionList, listConnections},
    {kCmdKillConnection, dropConnection},
    {kCmdDisconnectDevice, disconnectDevice},
    {kCmdStartRuleTransaction, startTransaction},
    {kCmdGetRules, getRules},
    {kCmdLoadRules, loadRules},
    {kCmdInsertRule, insertRule},
    {kCmdTestRule, testRule},
    {kCmdEndRuleTransaction, endTransaction},
    {kCmdGetPreferences, getPreferences},
    {kCmdAddPreferences, addPreferences},
    {kCmdRemovePreferences, removePreferences},
};

}  // namespace

std::optional<JsonObject> answer(State& state, Client& client, std::int32_t command,
                                 const JsonObject& request) {
    client.hasAsked = true;
    for (const Handler& handler : kHandlers) {
        if (handler.command == command) {
            return handler.handle(state, client, request);
        }
    }
    return std::nullopt;
}

}  // namespace demo
