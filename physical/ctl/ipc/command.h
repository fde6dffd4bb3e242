/// The command codes of frames.
#ifndef RV_IPC_COMMAND_H
#define RV_IPC_COMMAND_H

#include <cstdint>

/// A reply carries the code of its request. Numbers that are missing are not in use.
enum Command : std::int32_t {
    kCmdDeviceList = 0,
    kCmdConnectionList = 1,
    kCmdKillConnection = 2,
    kCmdDisconnectDevice = 3,
    kCmdDeviceEvent = 4,      ///< event: device state changed
    kCmdConnectionEvent = 5,  ///< event: connection state changed
    kCmdStartRuleTransaction = 6,
    kCmdGetRules = 7,
    kCmdLoadRules = 8,
    kCmdInsertRule = 9,
    kCmdTestRule = 10,
    kCmdEndRuleTransaction = 11,
    kCmdRuleListEvent = 12,  ///< event: rule list changed
    kCmdGetPreferences = 19,
    kCmdAddPreferences = 20,
    kCmdRemovePreferences = 21,
};

#endif
