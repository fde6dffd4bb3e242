/// A daemon that follows a script: listens on the control socket, records requests and answers as told.
///
/// It runs on a thread of its own from construction to finish(). All members may be called from the thread
/// that made it. Every wait has a limit of kLimit; a wait that runs into it returns false.
#ifndef RV_FAKE_DAEMON_FAKE_DAEMON_H
#define RV_FAKE_DAEMON_FAKE_DAEMON_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fake_daemon/script.h"
#include "fake_daemon/wire.h"

namespace fake {

inline constexpr const char* kSocketPath = "/var/run/rvusbpctl.sock";
inline constexpr std::chrono::seconds kLimit{60};

class FakeDaemon {
  public:
    /// Listens at once: a connection made after the constructor returned is never refused. Throws
    /// std::system_error if the socket cannot be made.
    explicit FakeDaemon(const Script& script, const std::string& path = kSocketPath);
    ~FakeDaemon();
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    /// Lets the script past one more hold().
    void release();

    bool waitForConnections(std::size_t count);
    bool waitForRequests(std::size_t count);
    /// Until the script stands at its n-th hold(), counted from 1, or is past it.
    bool waitForHold(std::size_t number);
    /// Until the last step is done.
    bool waitForEndOfScript();

    /// Takes whatever peers have left in their sockets, then closes everything and removes the socket. What
    /// the members below return is complete and constant from then on, provided the peers have ended.
    void finish();

    std::size_t connections() const;
    /// The whole requests of all connections in the order in which they became complete.
    std::vector<Frame> requests() const;
    /// Bytes behind the last whole request, over all connections.
    std::string leftovers() const;
    /// True once the last step of the script is done.
    bool isScriptDone() const;

  private:
    struct Connection {
        int fd = -1;           ///< -1 once it is closed
        std::string input{};   ///< received, not yet a whole request
        std::string output{};  ///< queued by the script
        std::size_t sent = 0;  ///< how much of it is on its way
    };

    void listenAt(const std::string& path);
    void run();
    bool isStopping() const;
    void waitForWork();
    void acceptAll();
    void readAll(Connection& connection);
    void flush(Connection& connection);
    void runScript();
    bool runStep(const Step& step, Connection& connection);
    bool isDrained(const Connection& connection);
    void closeConnection(Connection& connection);
    void wake();
    bool waitUntil(const std::function<bool()>& condition);

    const std::vector<Step> steps_;
    const std::string path_;
    int listener_ = -1;
    int wakeup_ = -1;  ///< an eventfd: something for the thread to look at

    // Touched by the daemon's thread alone while it runs.
    std::list<Connection> open_;
    std::size_t received_ = 0;  ///< receive() steps done
    std::size_t holdsDone_ = 0;
    bool waitsForPeer_ =
        false;  ///< a drain() is pending; no event tells its end, so the thread looks again soon

    mutable std::mutex lock_;
    std::condition_variable changed_;
    // Guarded by lock_.
    bool stopping_ = false;
    std::size_t releases_ = 0;
    std::size_t connections_ = 0;
    std::size_t scripted_ = 0;  ///< requests on the first connection
    std::size_t holdsReached_ = 0;
    std::size_t nextStep_ = 0;
    std::vector<Frame> requests_;
    std::string leftovers_;

    std::thread thread_;  ///< last: everything it touches exists before it
};

}  // namespace fake

#endif
