/// What the demo daemon knows about a device, its user and a connection.
#ifndef RV_DEMO_DEVICE_H
#define RV_DEMO_DEVICE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace demo {

struct DeviceClass {
    std::uint8_t code = 0;
    std::uint8_t subclass = 0;
    std::uint8_t protocol = 0;

    bool operator==(const DeviceClass&) const = default;
};

/// A remote host or a local application (a remote-desktop session); nobody when both texts are empty.
struct User {
    std::string addr{};  ///< host name or address as the connection has it
    std::string app{};   ///< full path
    std::uint32_t appPid = 0;

    bool operator==(const User&) const = default;
    bool isNobody() const noexcept { return addr.empty() && app.empty(); }
};

struct Device {
    std::uint16_t vid = 0;
    std::uint16_t pid = 0;
    std::uint16_t rev = 0;
    std::string port{};    ///< where it is attached, such as "1-4.2"
    std::string name{};    ///< the device's own, before any rule overrides it
    std::string serial{};  ///< likewise; may be empty
    bool builtIn = false;
    std::vector<DeviceClass> classes{};  ///< of the device and of each of its interfaces
    User user{};
};

/// A host on a port, or an application with its process id; user.addr tells which.
struct Connection {
    User user{};
    std::uint16_t port = 0;  ///< of a host only
};

/// Reads 1 to 4 hexadecimal digits and nothing else. Pure; any thread.
std::optional<std::uint16_t> parseHex(std::string_view digits) noexcept;

}  // namespace demo

#endif
