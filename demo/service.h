/// Serves clients on the control socket: accepts them, reads their requests, sends replies and events.
#ifndef RV_DEMO_SERVICE_H
#define RV_DEMO_SERVICE_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "demo/happenings.h"
#include "demo/requests.h"
#include "demo/state.h"

class RvKQueue;
class RvKQueueEventProtocol;
struct AcceptedConnection;

namespace demo {

/// The loop is stopped before the service goes, because the blocks of its endpoints use the service. While
/// the loop runs, state and sessions belong to its I/O thread, which is the only one to run the blocks;
/// listen and letThingsHappen touch neither and may be called on any thread, before or after the loop is
/// started.
///
/// This is where exceptions end: a client whose request there is no memory for loses its connection.
class Service {
  public:
    /// A client that has sent no request for this long after connecting is taken for a monitor.
    static constexpr std::uint64_t kPatienceMs = 500;

    /// loop        shared
    /// initial     taken over
    /// patienceMs  how long a client has for its first request, in milliseconds
    Service(std::shared_ptr<RvKQueue> loop, State initial, std::uint64_t patienceMs = kPatienceMs) noexcept;
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Listens at `path`. False when that is not possible; the engine has logged it.
    bool listen(const std::string& path) noexcept;

    /// Lets something happen every `seconds` seconds, 1 or more. False when there is no timer to be had.
    bool letThingsHappen(std::uint32_t seconds) noexcept;

  private:
    struct Session {
        std::shared_ptr<RvKQueueEventProtocol> endpoint;  ///< shared with the loop until it is closed
        std::shared_ptr<RvKQueueEventProtocol> patience;  ///< a timer, likewise; null once it is over
        Client client{};
        bool isMonitor = false;
        std::string early{};  ///< the event frames that it is to get if it turns out to be a monitor
    };

    bool accept(const AcceptedConnection& connection) noexcept;
    void waitForFirstRequest(Session& session) noexcept;
    void becomeMonitor(RvKQueueEventProtocol* endpoint) noexcept;
    void endPatience(Session& session) noexcept;
    void handleEvent(RvKQueueEventProtocol* endpoint, std::string_view bytes, std::uint64_t* dropSize,
                     std::int32_t event) noexcept;
    bool serveFrames(Session& session, std::string_view bytes, std::uint64_t* dropSize);
    bool serveFrame(Session& session, std::int32_t command, std::string_view body);
    void broadcast();
    void sendEvent(Session& session, const std::string& frame);
    void close(RvKQueueEventProtocol* endpoint) noexcept;

    const std::shared_ptr<RvKQueue> kq;  ///< strong; the loop knows the service only through blocks
    const std::uint64_t patienceMs;
    State state;
    Happenings happenings;
    std::unordered_map<RvKQueueEventProtocol*, Session> sessions;
};

}  // namespace demo

#endif
