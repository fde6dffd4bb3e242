/// The demo daemon's state: devices, connections, rules and preferences, kept in memory only.
///
/// Every change leaves events behind that tell monitors about it; whoever made the change fetches them with
/// takeEvents(). Used by one thread at a time: once the daemon runs, by the engine's I/O thread. The
/// functions that change something may throw std::bad_alloc.
#ifndef RV_DEMO_STATE_H
#define RV_DEMO_STATE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "demo/device.h"
#include "demo/rule_evaluation.h"
#include "demo/sample_file.h"
#include "ipc/json.h"

namespace demo {

/// The words of a device's state, as the device list and the events have them.
inline constexpr char kStateShared[] = "shared";    ///< the rules let somebody have it
inline constexpr char kStateBlocked[] = "blocked";  ///< they let nobody have it
inline constexpr char kStateInUse[] = "in use";
// Of events only:
inline constexpr char kStatePlugged[] = "plugged";
inline constexpr char kStateUnplugged[] = "unplugged";
inline constexpr char kStateConnected[] = "connected";
inline constexpr char kStateDisconnected[] = "disconnected";

/// Never null and never changed: a transaction works on a rule set of its own.
using RuleSet = std::shared_ptr<const JsonArray>;

struct Event {
    std::int32_t command = 0;
    JsonObject body{};
};

/// A device as clients see it: what the rules make of it is worked out again whenever they or its user
/// change.
struct ListedDevice {
    std::uint32_t id = 0;
    Device device{};
    const char* state = kStateBlocked;
    std::string name{};    ///< the device's own or the override of the rule that decided
    std::string serial{};  ///< likewise
};

class State {
  public:
    /// Devices get the ids 1, 2, ... A device whose user the rules refuse starts without a user. The start
    /// leaves no events behind.
    explicit State(Inventory inventory);

    const std::vector<ListedDevice>& devices() const noexcept { return listed; }
    /// Null when there is no such device. Valid until a device comes or goes.
    const ListedDevice* find(std::uint32_t id) const noexcept;
    const std::vector<Connection>& connections() const noexcept { return active; }
    const RuleSet& rules() const noexcept { return ruleSet; }
    /// Hardware id to an object of preferences.
    const JsonObject& preferences() const noexcept { return kept; }

    /// Adds a device and returns its id; ids are never used twice.
    std::uint32_t plug(Device device);
    /// Takes the device out of the list, as if it had been pulled out. False when there is no such device.
    bool unplug(std::uint32_t id);

    /// Lets a user have the device. False when there is no such device, somebody has it already or the rules
    /// say no.
    bool use(std::uint32_t id, const User& user);
    /// Ends the use of the device. False when nobody has it.
    bool release(std::uint32_t id);

    void connect(Connection connection);
    /// Ends the connections of a host: the one on `port`, or all of them. When the host has none left, its
    /// use of devices ends. Returns how many connections ended.
    std::size_t dropConnections(std::string_view host, std::optional<std::uint16_t> port);

    /// Replaces the rule set. Uses that the new rules refuse end. The rule-list event comes before those of
    /// the devices.
    void commitRules(RuleSet rules);

    /// Sets the preferences of a hardware id, keeping those it has that are not named.
    void addPreferences(std::string_view hwid, const JsonObject& preferences);
    /// False when the hardware id has none.
    bool removePreferences(std::string_view hwid);

    /// What has happened since the last call, in order.
    std::vector<Event> takeEvents() noexcept;

  private:
    ListedDevice* findMutable(std::uint32_t id) noexcept;
    bool isAllowed(const Device& device, const User& user) const noexcept;
    void look(ListedDevice* listedDevice) const;
    void refresh(ListedDevice* listedDevice);
    void tellDevice(const ListedDevice& listedDevice, const char* state);
    void tellConnection(const Connection& connection, const char* state);

    std::vector<ListedDevice> listed;
    std::vector<Connection> active;
    RuleSet ruleSet;
    JsonObject kept;
    std::vector<Event> events;
    std::uint32_t nextId = 1;
};

/// Adds the members `addr`, `app` and `appPID` of a user to a reply or event. Throws std::bad_alloc.
void putUser(const User& user, JsonObject* body);

}  // namespace demo

#endif
