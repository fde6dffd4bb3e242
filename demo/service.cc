#include "demo/service.h"

#include <sys/types.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <utility>

#include "demo/request_frame.h"
#include "ipc/reply_decoder.h"
#include "libio-macOS/AcceptedConnection.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueTimer.h"
#include "libio-macOS/RvKQueueUnixServer.h"

namespace demo {
namespace {

/// Everybody may connect: what a client may do is decided by who it is, not by whether it gets in.
constexpr std::uint16_t kSocketMode = 0666;
constexpr std::uint64_t kMsPerSecond = 1000;

bool mayDropConnections(const PeerCredentials& peer) noexcept {
    return peer.userId == 0 || peer.userId == geteuid();
}

}  // namespace

Service::Service(std::shared_ptr<RvKQueue> loop, State initial, std::uint64_t patience) noexcept
    : kq(std::move(loop)), patienceMs(patience), state(std::move(initial)), happenings(state) {}

Service::~Service() = default;

bool Service::listen(const std::string& path) noexcept {
    const std::shared_ptr<RvKQueueEventProtocol> server = kq->createUnixServer(path.c_str(), kSocketMode);
    if (server == nullptr) {
        return false;
    }
    kq->startObject(server, [this](RvKQueueEventProtocol*, const char* record, std::uint64_t size,
                                   std::uint64_t*, std::int32_t event) {
        AcceptedConnection connection;
        if (event != kEventData || size != sizeof connection) {
            return false;
        }
        std::memcpy(&connection, record, sizeof connection);
        return accept(connection);
    });
    return true;
}

bool Service::letThingsHappen(std::uint32_t seconds) noexcept {
    const std::shared_ptr<RvKQueueEventProtocol> timer = kq->createTimer(seconds * kMsPerSecond, false);
    if (timer == nullptr) {
        return false;
    }
    kq->startObject(timer,
                    [this](RvKQueueEventProtocol*, const char*, std::uint64_t, std::uint64_t*, std::int32_t) {
                        try {
                            happenings.next();
                            broadcast();
                        } catch (const std::exception&) {
                            return false;  // no memory: this time nothing happens
                        }
                        return true;
                    });
    return true;
}

/// Returns whether the descriptor has been taken.
bool Service::accept(const AcceptedConnection& connection) noexcept {
    const std::shared_ptr<RvKQueueEventProtocol> endpoint =
        kq->createStreamSocket(connection.descriptor, true);
    if (endpoint == nullptr) {
        return false;
    }
    try {
        Session& session = sessions[endpoint.get()];
        session.endpoint = endpoint;
        session.client.mayDropConnections = mayDropConnections(connection.peer.credentials);
        waitForFirstRequest(session);
    } catch (const std::exception&) {
        kq->stopObject(endpoint);  // closes the descriptor, so it counts as taken
        return true;
    }
    kq->startObject(endpoint, [this](RvKQueueEventProtocol* object, const char* buffer, std::uint64_t size,
                                     std::uint64_t* dropSize, std::int32_t event) {
        handleEvent(object, {buffer, buffer == nullptr ? 0 : size}, dropSize, event);
        return true;
    });
    return true;
}

/// Without a timer the client counts as a monitor at once.
void Service::waitForFirstRequest(Session& session) noexcept {
    session.patience = kq->createTimer(patienceMs, true);
    if (session.patience == nullptr) {
        session.isMonitor = true;
        return;
    }
    kq->startObject(session.patience,
                    [this, endpoint = session.endpoint.get()](RvKQueueEventProtocol*, const char*,
                                                              std::uint64_t, std::uint64_t*, std::int32_t) {
                        becomeMonitor(endpoint);
                        return true;
                    });
}

/// The endpoint may be gone: its timer can still fire in the turn in which it was stopped.
void Service::becomeMonitor(RvKQueueEventProtocol* endpoint) noexcept {
    const auto found = sessions.find(endpoint);
    if (found == sessions.end() || found->second.patience == nullptr) {
        return;
    }
    Session& session = found->second;
    (void)kq->write(endpoint, session.early.data(), session.early.size());  // a lost client reports itself
    session.isMonitor = true;
    endPatience(session);
}

void Service::endPatience(Session& session) noexcept {
    if (session.patience != nullptr) {
        kq->stopObject(session.patience);
        session.patience = nullptr;
    }
    session.early = std::string();
}

/// A client that was closed in this turn may still be heard of; it is no longer known then.
void Service::handleEvent(RvKQueueEventProtocol* endpoint, std::string_view bytes, std::uint64_t* dropSize,
                          std::int32_t event) noexcept {
    const auto found = sessions.find(endpoint);
    if (found == sessions.end() || event == kEventConnected) {
        return;
    }
    bool isUsable = false;
    try {
        isUsable = event == kEventData && serveFrames(found->second, bytes, dropSize);
        broadcast();
    } catch (const std::exception&) {
        isUsable = false;
    }
    if (!isUsable) {
        close(endpoint);
    }
}

/// Serves the whole frames at the front of `bytes`. False when the client's bytes make no sense.
bool Service::serveFrames(Session& session, std::string_view bytes, std::uint64_t* dropSize) {
    std::uint64_t served = 0;
    Frame frame;
    FrameCut cut = cutRequest(bytes, frame);
    while (cut == FrameCut::kComplete) {
        if (!serveFrame(session, frame.command, frame.body)) {
            return false;
        }
        served += kFrameHeaderBytes + frame.body.size();
        cut = cutRequest(bytes.substr(served), frame);
    }
    *dropSize = served;
    return cut == FrameCut::kPartial;
}

bool Service::serveFrame(Session& session, std::int32_t command, std::string_view body) {
    endPatience(session);
    session.isMonitor = false;
    ReplyDecoder decoder;
    if (decoder.decode(body.empty() ? "{}" : body) != DecodeResult::kObject) {
        return false;
    }
    const std::optional<JsonObject> reply = answer(state, session.client, command, decoder.object());
    if (!reply.has_value()) {
        return false;
    }
    const std::string frame = makeFrame(command, *reply);
    return kq->write(session.endpoint, frame.data(), frame.size());
}

/// Deliberate: events go only to clients that have sent no request, and not before they have had the time for
/// one. A monitor never sends any, and a client with a request takes the next frame for its reply: some of
/// its commands end on a frame of any code. Held by DemoService.EventsGoOnlyToClientsWithoutARequest and
/// PatientDemoService.EventsDoNotComeBeforeTheFirstReply.
void Service::broadcast() {
    for (const Event& event : state.takeEvents()) {
        const std::string frame = makeFrame(event.command, event.body);
        for (auto& [endpoint, session] : sessions) {
            sendEvent(session, frame);
        }
    }
}

void Service::sendEvent(Session& session, const std::string& frame) {
    if (session.isMonitor) {
        (void)kq->write(session.endpoint, frame.data(), frame.size());
    } else if (!session.client.hasAsked) {
        session.early.append(frame);
    }
}

/// An open transaction goes with its client.
void Service::close(RvKQueueEventProtocol* endpoint) noexcept {
    const auto found = sessions.find(endpoint);
    endPatience(found->second);
    kq->stopObject(endpoint);
    sessions.erase(found);
}

}  // namespace demo
