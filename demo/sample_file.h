/// Reads the made-up office that the demo daemon starts from.
///
/// The file is a JSON object with the members
///   devices      array of {"hwid": "vvvv:pppp:rrrr", "port", "name", "serial", "built-in", "classes":
///                ["cc:ss:pp", ...]} and, for a device in use, "addr" or "app" with "appPID"
///   connections  array of {"addr", "port"} (a host) or {"app", "appPID"} (a remote-desktop session)
///   rules        array of rule records as they stand on the wire
///   preferences  object: hardware id to {"grab_on_plug": true}
/// All members may be absent.
#ifndef RV_DEMO_SAMPLE_FILE_H
#define RV_DEMO_SAMPLE_FILE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "demo/device.h"
#include "ipc/json.h"

namespace demo {

/// Everything the daemon's state is made from.
struct Inventory {
    std::vector<Device> devices{};
    std::vector<Connection> connections{};
    JsonArray rules{};
    JsonObject preferences{};
};

/// Takes the text of a sample file apart. Nothing, without a message, when it is not of the shape above.
/// Throws std::bad_alloc.
std::optional<Inventory> parseSample(std::string_view text);

/// Reads the file at `path`. Nothing after one line on standard error when it cannot be read or is not of the
/// shape above. Throws std::bad_alloc.
std::optional<Inventory> readSample(const std::string& path);

}  // namespace demo

#endif
