/// Finds the USB devices of this machine in sysfs.
#ifndef RV_DEMO_DEVICE_SOURCE_H
#define RV_DEMO_DEVICE_SOURCE_H

#include <string>
#include <vector>

#include "demo/device.h"

namespace demo {

inline constexpr char kSysfsDirectory[] = "/sys/bus/usb/devices";

/// Reads the devices below `directory`, in the order of their names.
///
/// A device's entry is named after its port ("1-4.2") and has the attributes idVendor, idProduct, bcdDevice,
/// product, manufacturer, serial, removable and bDeviceClass, bDeviceSubClass, bDeviceProtocol; its
/// interfaces stand beside it ("1-4.2:1.0") with bInterfaceClass and so on (kernel, Documentation/ABI,
/// sysfs-bus-usb). Root hubs ("usb1") and entries without a hardware id are left out. A device without a
/// product text goes by its manufacturer's, or as "USB device". Returns an empty list when the directory is
/// not there. Throws std::bad_alloc.
std::vector<Device> readUsbDevices(const std::string& directory);

}  // namespace demo

#endif
