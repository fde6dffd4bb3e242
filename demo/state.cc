#include "demo/state.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <utility>

#include "ipc/command.h"

namespace demo {
namespace {

Asker askerOf(const User& user) noexcept {
    if (user.addr.empty()) {
        return {Asker::Kind::kRemoteDesktop};
    }
    return {Asker::Kind::kHost, user.addr};
}

/// The text of the override `key` of the rule, or else the device's own.
std::string overridden(const JsonObject* rule, std::string_view key, const std::string& own) {
    const JsonValue* text = rule == nullptr ? nullptr : stringMember(*rule, key);
    return text == nullptr ? own : std::string(asText(text));
}

}  // namespace

void putUser(const User& user, JsonObject* body) {
    if (!user.addr.empty()) {
        (*body)["addr"] = user.addr;
    }
    if (!user.app.empty()) {
        (*body)["app"] = user.app;
        (*body)["appPID"] = user.appPid;
    }
}

State::State(Inventory inventory)
    : active(std::move(inventory.connections)),
      ruleSet(std::make_shared<const JsonArray>(std::move(inventory.rules))),
      kept(std::move(inventory.preferences)) {
    for (Device& device : inventory.devices) {
        (void)plug(std::move(device));
    }
    events.clear();
}

const ListedDevice* State::find(std::uint32_t id) const noexcept {
    const auto found = std::find_if(listed.begin(), listed.end(),
                                    [id](const ListedDevice& candidate) { return candidate.id == id; });
    return found == listed.end() ? nullptr : &*found;
}

ListedDevice* State::findMutable(std::uint32_t id) noexcept {
    return const_cast<ListedDevice*>(find(id));  // the list is this object's own
}

std::uint32_t State::plug(Device device) {
    ListedDevice added{.id = nextId++, .device = std::move(device)};
    look(&added);
    listed.push_back(std::move(added));
    tellDevice(listed.back(), kStatePlugged);
    return listed.back().id;
}

bool State::unplug(std::uint32_t id) {
    ListedDevice* gone = findMutable(id);
    if (gone == nullptr) {
        return false;
    }
    gone->device.user = {};
    tellDevice(*gone, kStateUnplugged);
    listed.erase(listed.begin() + (gone - listed.data()));
    return true;
}

bool State::use(std::uint32_t id, const User& user) {
    ListedDevice* wanted = findMutable(id);
    if (wanted == nullptr || !wanted->device.user.isNobody() || !isAllowed(wanted->device, user)) {
        return false;
    }
    wanted->device.user = user;
    refresh(wanted);
    return true;
}

bool State::release(std::uint32_t id) {
    ListedDevice* used = findMutable(id);
    if (used == nullptr || used->device.user.isNobody()) {
        return false;
    }
    used->device.user = {};
    refresh(used);
    return true;
}

void State::connect(Connection connection) {
    active.push_back(std::move(connection));
    tellConnection(active.back(), kStateConnected);
}

std::size_t State::dropConnections(std::string_view host, std::optional<std::uint16_t> port) {
    const auto isDropped = [&](const Connection& connection) {
        return !host.empty() && connection.user.addr == host &&
               (!port.has_value() || connection.port == *port);
    };
    const auto remaining = std::stable_partition(active.begin(), active.end(), std::not_fn(isDropped));
    const auto dropped = static_cast<std::size_t>(active.end() - remaining);
    std::for_each(remaining, active.end(),
                  [this](const Connection& c) { tellConnection(c, kStateDisconnected); });
    active.erase(remaining, active.end());
    const bool remains = std::any_of(active.begin(), active.end(),
                                     [host](const Connection& c) { return c.user.addr == host; });
    for (ListedDevice& used : listed) {
        if (dropped > 0 && !remains && used.device.user.addr == host) {
            (void)release(used.id);
        }
    }
    return dropped;
}

void State::commitRules(RuleSet rules) {
    ruleSet = std::move(rules);
    events.push_back({kCmdRuleListEvent, {}});
    for (ListedDevice& device : listed) {
        refresh(&device);
    }
}

void State::addPreferences(std::string_view hwid, const JsonObject& preferences) {
    JsonValue& entry = kept[boost::json::string_view(hwid.data(), hwid.size())];
    JsonObject& target = entry.is_object() ? entry.get_object() : entry.emplace_object();
    for (const auto& preference : preferences) {
        target.insert_or_assign(preference.key(), preference.value());
    }
}

bool State::removePreferences(std::string_view hwid) {
    return kept.erase({hwid.data(), hwid.size()}) > 0;
}

std::vector<Event> State::takeEvents() noexcept {
    return std::exchange(events, {});
}

bool State::isAllowed(const Device& device, const User& user) const noexcept {
    return evaluateRules(*ruleSet, device, askerOf(user)).share;
}

/// Works out what clients see of the device.
void State::look(ListedDevice* listedDevice) const {
    Device& device = listedDevice->device;
    if (!device.user.isNobody() && !isAllowed(device, device.user)) {
        device.user = {};
    }
    const Verdict verdict = evaluateRules(*ruleSet, device, {Asker::Kind::kAnybody});
    listedDevice->state = verdict.share ? kStateShared : kStateBlocked;
    if (!device.user.isNobody()) {
        listedDevice->state = kStateInUse;
    }
    listedDevice->name = overridden(verdict.rule, "override-name", device.name);
    listedDevice->serial = overridden(verdict.rule, "override-serial", device.serial);
}

/// Looks at the device again and tells monitors when its state has changed.
void State::refresh(ListedDevice* listedDevice) {
    const char* const before = listedDevice->state;
    look(listedDevice);
    if (std::strcmp(before, listedDevice->state) != 0) {
        tellDevice(*listedDevice, listedDevice->state);
    }
}

void State::tellDevice(const ListedDevice& listedDevice, const char* state) {
    JsonObject body;
    body["id"] = listedDevice.id;
    body["name"] = listedDevice.name;
    body["state"] = state;
    putUser(listedDevice.device.user, &body);
    events.push_back({kCmdDeviceEvent, std::move(body)});
}

void State::tellConnection(const Connection& connection, const char* state) {
    JsonObject body;
    body["state"] = state;
    putUser(connection.user, &body);
    if (!connection.user.addr.empty()) {
        body["port"] = connection.port;
    }
    events.push_back({kCmdConnectionEvent, std::move(body)});
}

}  // namespace demo
