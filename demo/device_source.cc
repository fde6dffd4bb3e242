#include "demo/device_source.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>
#include <system_error>

#include "ipc/utf8.h"

namespace demo {
namespace {

namespace fs = std::filesystem;

bool isInterface(std::string_view name) noexcept {
    return name.find(':') != std::string_view::npos;
}

bool isRootHub(std::string_view name) noexcept {
    return name.starts_with("usb");
}

/// The names of all entries, sorted: sysfs has no order of its own.
std::vector<std::string> listNames(const fs::path& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        names.push_back(entry->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// The attribute's first line. Devices write their own texts: what is not UTF-8 counts as missing, control
/// characters become blanks and blanks at the ends go, so that no device can spoil the list.
std::string readText(const fs::path& entry, const char* attribute) {
    std::ifstream file(entry / attribute);
    std::string line;
    std::getline(file, line);
    if (!isUtf8(line)) {
        return {};
    }
    std::replace_if(
        line.begin(), line.end(), [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; }, ' ');
    const std::size_t first = line.find_first_not_of(' ');
    if (first == std::string::npos) {
        return {};
    }
    return line.substr(first, line.find_last_not_of(' ') - first + 1);
}

std::optional<std::uint16_t> readHex(const fs::path& entry, const char* attribute) {
    return parseHex(readText(entry, attribute));
}

struct ClassAttributes {
    const char* code;
    const char* subclass;
    const char* protocol;
};
constexpr ClassAttributes kOfDevice{"bDeviceClass", "bDeviceSubClass", "bDeviceProtocol"};
constexpr ClassAttributes kOfInterface{"bInterfaceClass", "bInterfaceSubClass", "bInterfaceProtocol"};

void addClass(const fs::path& entry, const ClassAttributes& attributes, std::vector<DeviceClass>* classes) {
    const auto code = readHex(entry, attributes.code);
    if (!code.has_value() || *code == 0) {  // class 0 of a device: see its interfaces
        return;
    }
    const auto subclass = readHex(entry, attributes.subclass).value_or(0);
    const auto protocol = readHex(entry, attributes.protocol).value_or(0);
    const DeviceClass found{static_cast<std::uint8_t>(*code), static_cast<std::uint8_t>(subclass),
                            static_cast<std::uint8_t>(protocol)};
    if (std::find(classes->begin(), classes->end(), found) == classes->end()) {
        classes->push_back(found);
    }
}

std::string readName(const fs::path& entry) {
    for (const char* attribute : {"product", "manufacturer"}) {
        if (std::string text = readText(entry, attribute); !text.empty()) {
            return text;
        }
    }
    return "USB device";
}

std::optional<Device> readDevice(const fs::path& entry) {
    const auto vid = readHex(entry, "idVendor");
    const auto pid = readHex(entry, "idProduct");
    if (!vid.has_value() || !pid.has_value()) {
        return std::nullopt;
    }
    Device device{.vid = *vid, .pid = *pid, .rev = readHex(entry, "bcdDevice").value_or(0)};
    device.port = entry.filename().string();
    device.name = readName(entry);
    device.serial = readText(entry, "serial");
    device.builtIn = readText(entry, "removable") == "fixed";
    addClass(entry, kOfDevice, &device.classes);
    return device;
}

}  // namespace

std::vector<Device> readUsbDevices(const std::string& directory) {
    const fs::path root(directory);
    const std::vector<std::string> names = listNames(root);
    std::vector<Device> devices;
    for (const std::string& name : names) {
        if (isInterface(name) || isRootHub(name)) {
            continue;
        }
        if (std::optional<Device> device = readDevice(root / name)) {
            devices.push_back(std::move(*device));
        }
    }
    for (const std::string& name : names) {
        const std::string port = name.substr(0, name.find(':'));
        const auto owner = std::find_if(devices.begin(), devices.end(),
                                        [&port](const Device& device) { return device.port == port; });
        if (isInterface(name) && owner != devices.end()) {
            addClass(root / name, kOfInterface, &owner->classes);
        }
    }
    return devices;
}

}  // namespace demo
