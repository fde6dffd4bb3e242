/// The exit statuses of the tool: scripts rely on these numbers on every platform.
#ifndef RV_CLI_EXIT_STATUS_H
#define RV_CLI_EXIT_STATUS_H

enum ExitStatus : int {
    kExitOk = 0,
    kExitNotFound = 2,     ///< the device or connection that was named does not exist
    kExitIo = 5,           ///< lost connection, unexpected reply, unreadable rules, malformed event
    kExitNoMemory = 12,    ///< the engine or the client cannot be created
    kExitInvalid = 22,     ///< invalid command line
    kExitPermission = 80,  ///< the daemon refuses this user
};

#endif
