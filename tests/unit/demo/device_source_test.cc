#include "demo/device_source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace demo {
namespace {

using Attributes = std::map<std::string, std::string>;

/// A directory that looks like the one of the kernel.
class DeviceSource : public testing::Test {
  protected:
    DeviceSource() {
        std::string name = "/tmp/sysfs-XXXXXX";
        root = mkdtemp(name.data());
    }
    ~DeviceSource() override { std::filesystem::remove_all(root); }

    void add(const std::string& entry, const Attributes& attributes) {
        std::filesystem::create_directories(root / entry);
        for (const auto& [name, text] : attributes) {
            std::ofstream(root / entry / name) << text;
        }
    }

    /// A device with the attributes given besides its hardware id.
    Device readOne(Attributes attributes) {
        attributes.insert({{"idVendor", "e001\n"}, {"idProduct", "0002\n"}});
        add("1-1", attributes);
        const std::vector<Device> devices = readUsbDevices(root);
        EXPECT_EQ(devices.size(), 1U);
        return devices.empty() ? Device{} : devices.front();
    }

    std::filesystem::path root;
};

TEST_F(DeviceSource, ReadsEveryAttribute) {
    const Device device = readOne({{"bcdDevice", "0a12\n"},
                                   {"product", "Label printer\n"},
                                   {"manufacturer", "Nobody\n"},
                                   {"serial", "S 1\n"},
                                   {"removable", "fixed\n"},
                                   {"bDeviceClass", "ef\n"},
                                   {"bDeviceSubClass", "02\n"},
                                   {"bDeviceProtocol", "01\n"}});
    EXPECT_EQ(device.vid, 0xe001);
    EXPECT_EQ(device.pid, 0x0002);
    EXPECT_EQ(device.rev, 0x0a12);
    EXPECT_EQ(device.port, "1-1");
    EXPECT_EQ(device.name, "Label printer");
    EXPECT_EQ(device.serial, "S 1");
    EXPECT_TRUE(device.builtIn);
    EXPECT_THAT(device.classes, testing::ElementsAre(DeviceClass{0xef, 2, 1}));
    EXPECT_TRUE(device.user.isNobody());
}

TEST_F(DeviceSource, FallsBackToTheManufacturer) {
    EXPECT_EQ(readOne({{"manufacturer", "Nobody\n"}}).name, "Nobody");
}

TEST_F(DeviceSource, FallsBackToAPlainName) {
    const Device device = readOne({{"product", "   \n"}});
    EXPECT_EQ(device.name, "USB device");
    EXPECT_EQ(device.serial, "");
    EXPECT_EQ(device.rev, 0);
}

TEST_F(DeviceSource, RemovableAndUnknownAreNotBuiltIn) {
    EXPECT_FALSE(readOne({{"removable", "removable\n"}}).builtIn);
    EXPECT_FALSE(readOne({{"removable", "unknown\n"}}).builtIn);
}

TEST_F(DeviceSource, TextsOfDevicesCannotSpoilTheList) {
    EXPECT_EQ(readOne({{"product", " Tab\there\x01 \n"}}).name, "Tab here");
    EXPECT_EQ(readOne({{"product", "\xff\xfe\n"}}).name, "USB device");
    EXPECT_EQ(readOne({{"product", "Z\xc3\xbcrich\n"}}).name, "Z\xc3\xbcrich");
}

TEST_F(DeviceSource, ClassesOfInterfacesAreTheDevices) {
    add("1-1:1.0", {{"bInterfaceClass", "03"}, {"bInterfaceSubClass", "01"}, {"bInterfaceProtocol", "02"}});
    add("1-1:1.1", {{"bInterfaceClass", "03"}, {"bInterfaceSubClass", "01"}, {"bInterfaceProtocol", "02"}});
    add("1-10:1.0", {{"bInterfaceClass", "08"}, {"bInterfaceSubClass", "06"}, {"bInterfaceProtocol", "50"}});
    const Device device = readOne({{"bDeviceClass", "00\n"}});
    EXPECT_THAT(device.classes, testing::ElementsAre(DeviceClass{3, 1, 2}));
}

TEST_F(DeviceSource, RootHubsAndOddEntriesAreLeftOut) {
    add("usb1", {{"idVendor", "e000"}, {"idProduct", "0001"}});
    add("1-2", {{"idVendor", "e000"}});
    add("1-3", {{"idVendor", "e000"}, {"idProduct", "12345"}});
    add("1-4", {{"idVendor", "e000"}, {"idProduct", "00g0"}});
    EXPECT_TRUE(readUsbDevices(root).empty());
}

TEST_F(DeviceSource, DevicesComeInTheOrderOfTheirPorts) {
    for (const char* port : {"2-1", "1-1.4", "1-1"}) {
        add(port, {{"idVendor", "e001"}, {"idProduct", "0002"}});
    }
    std::vector<std::string> ports;
    for (const Device& device : readUsbDevices(root)) {
        ports.push_back(device.port);
    }
    EXPECT_THAT(ports, testing::ElementsAre("1-1", "1-1.4", "2-1"));
}

TEST_F(DeviceSource, AMachineWithoutTheDirectoryHasNoDevices) {
    EXPECT_TRUE(readUsbDevices(root / "missing").empty());
}

TEST(ParseHex, TakesOneToFourDigitsAndNothingElse) {
    EXPECT_EQ(parseHex("0"), 0);
    EXPECT_EQ(parseHex("Ff"), 0xff);
    EXPECT_EQ(parseHex("ffff"), 0xffff);
    for (const char* text : {"", "00001", "10000", "g", "1 ", " 1", "-1", "0x1"}) {
        EXPECT_EQ(parseHex(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace demo
