#include "IPCClient.h"

#include <algorithm>
#include <array>
#include <boost/json/serializer.hpp>
#include <cstdio>
#include <exception>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "ipc/frame.h"
#include "ipc/reply_decoder.h"
#include "ipc/utf8.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueUnixClient.h"

namespace {

// The near-identical texts are distinct messages; only those of the preference requests end their line.
constexpr char kNoDictionary[] = "cannot allocate dictionary for request";
constexpr char kNoObject[] = "cannot allocate object for request";
constexpr char kNoObjects[] = "cannot allocate objects for request";
constexpr char kNoNumber[] = "cannot allocate number for request";
constexpr char kNoString[] = "cannot allocate string for request";
constexpr char kNoDictionaryLine[] = "cannot allocate dictionary for request\n";
constexpr char kNoPreferencesLine[] = "cannot allocate dictionary for preferences\n";

/// A frame that has less than this is sent as a copy, which takes one system call.
constexpr std::size_t kLeastSharedBytes = 65536;

void complain(const char* message) noexcept {
    (void)std::fputs(message, stderr);  // nobody is left to tell
}

/// The body of one request while it is put together. The first step that fails writes its message; the later
/// steps then do nothing and send() tells.
class Request {
  public:
    Request(std::size_t members, const char* failure) noexcept {
        attempt(failure, [&] { body_.reserve(members); });
    }

    template <class Value>
    Request& with(std::string_view key, Value&& value, const char* failure) noexcept {
        attempt(failure, [&] {
            body_.insert_or_assign({key.data(), key.size()}, std::forward<Value>(value));
        });
        return *this;
    }

    /// A text that is not UTF-8 cannot become a string of the request.
    Request& withText(std::string_view key, std::string_view text, const char* failure) noexcept {
        if (failed_) {
            return *this;
        }
        if (!isUtf8(text)) {
            fail(failure);
            return *this;
        }
        return with(key, boost::json::string_view(text.data(), text.size()), failure);
    }

    /// The preferences to set: grab_on_plug is the only one there is.
    Request& withPreferences(const char* failure) noexcept {
        attempt(failure, [&] {
            JsonObject preferences;
            preferences["grab_on_plug"] = true;
            body_["preferences"] = std::move(preferences);
        });
        return *this;
    }

    bool send(RvTetherIPCClient& client, std::int32_t command) const noexcept {
        if (failed_) {
            return false;
        }
        client.sendJSON(&body_, command);
        return true;
    }

  private:
    template <class Step>
    void attempt(const char* failure, Step step) noexcept {
        if (failed_) {
            return;
        }
        try {
            step();
        } catch (const std::exception&) {
            fail(failure);
        }
    }

    void fail(const char* failure) noexcept {
        complain(failure);
        failed_ = true;
    }

    JsonObject body_;
    bool failed_ = false;
};

/// A whole frame in one piece of memory, or nothing when there is no memory for it.
std::optional<std::string> encodeFrame(const JsonObject* dictionary, std::int32_t command) noexcept {
    try {
        std::string frame(kFrameHeaderBytes, '\0');
        if (dictionary != nullptr) {
            boost::json::serializer serializer;
            serializer.reset(dictionary);
            char chunk[16384];
            while (!serializer.done()) {
                const boost::json::string_view piece = serializer.read(chunk);
                frame.append(piece.data(), piece.size());
            }
        }
        const FrameHeader header{static_cast<std::uint32_t>(command),
                                 static_cast<std::uint32_t>(frame.size() - kFrameHeaderBytes)};
        encodeFrameHeader(header, frame.data());
        return frame;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace

std::shared_ptr<RvTetherIPCClient> RvTetherIPCClient::initWithKQueue(
    const std::shared_ptr<RvKQueue>& kqueue) noexcept {
    std::shared_ptr<RvKQueueUnixClient> endpoint = kqueue->createUnixClient(kControlSocketPath);
    if (!endpoint) {
        return nullptr;
    }
    try {
        return std::make_shared<RvTetherIPCClient>(Private{}, kqueue, endpoint);
    } catch (const std::exception&) {
        kqueue->stopObject(endpoint);
        return nullptr;
    }
}

RvTetherIPCClient::RvTetherIPCClient(Private, const std::shared_ptr<RvKQueue>& kqueue,
                                     std::shared_ptr<RvKQueueUnixClient> endpoint) noexcept
    : kq(kqueue), unix_(std::move(endpoint)) {}

RvTetherIPCClient::~RvTetherIPCClient() = default;

bool RvTetherIPCClient::setOnConnected(OnConnected callback) noexcept {
    return onConnected_.set(std::move(callback));
}

bool RvTetherIPCClient::setOnData(OnData callback) noexcept {
    return onData_.set(std::move(callback));
}

bool RvTetherIPCClient::setOnError(OnError callback) noexcept {
    return onError_.set(std::move(callback));
}

std::shared_ptr<const RvTetherIPCClient::OnConnected> RvTetherIPCClient::onConnected() const noexcept {
    return onConnected_.get();
}

std::shared_ptr<const RvTetherIPCClient::OnData> RvTetherIPCClient::onData() const noexcept {
    return onData_.get();
}

std::shared_ptr<const RvTetherIPCClient::OnError> RvTetherIPCClient::onError() const noexcept {
    return onError_.get();
}

/// Null after stop().
std::shared_ptr<RvKQueueUnixClient> RvTetherIPCClient::endpoint() const noexcept {
    const LockGuard<Lock> guard(endpointLock);
    return unix_;
}

void RvTetherIPCClient::start() noexcept {
    const std::shared_ptr<RvKQueue> loop = kq.lock();
    if (!loop) {
        return;
    }
    try {
        loop->startObject(endpoint(), [self = shared_from_this()](RvKQueueEventProtocol*, const char* buffer,
                                                                  std::uint64_t size, std::uint64_t* dropSize,
                                                                  std::int32_t event) {
            return self->handleEvent(buffer, size, dropSize, event);
        });
    } catch (const std::exception&) {  // no memory for the event block: there will be no connection
        complain("cannot connect\n");
        reportError();
    }
}

void RvTetherIPCClient::stop() noexcept {
    const std::shared_ptr<RvKQueueUnixClient> stopped = endpoint();
    if (const std::shared_ptr<RvKQueue> loop = kq.lock(); loop && stopped) {
        loop->stopObject(stopped);
    }
    {
        const LockGuard<Lock> guard(endpointLock);
        unix_.reset();
    }
    (void)setOnData(nullptr);  // clearing needs no memory
    (void)setOnConnected(nullptr);
    (void)setOnError(nullptr);
}

void RvTetherIPCClient::reportError() noexcept {
    if (const auto callback = onError()) {
        (*callback)();
    }
}

bool RvTetherIPCClient::handleEvent(const char* buffer, std::uint64_t size, std::uint64_t* dropSize,
                                    std::int32_t event) noexcept {
    switch (event) {
        case kEventConnected:
            if (const auto callback = onConnected()) {
                (*callback)();
            }
            break;
        case kEventData:
            if (!parseProtocolBuffer(buffer, size, dropSize)) {
                reportError();
            }
            break;
        case kEventClosed:  // what still waits in the buffer is not parsed: it goes with the buffer
            complain("connection terminated\n");
            reportError();
            break;
        case kEventConnectFailed:
            complain("cannot connect\n");
            reportError();
            break;
        default:
            break;
    }
    return true;
}

void RvTetherIPCClient::sendJSON(const JsonObject* dictionary, std::int32_t command) noexcept {
    const std::optional<std::string> frame = encodeFrame(dictionary, command);
    if (frame) {
        send(*frame);
    } else if (dictionary != nullptr) {
        complain("cannot convert dictionary to JSON");
    }
}

void RvTetherIPCClient::send(std::string_view frame) noexcept {
    const std::shared_ptr<RvKQueueUnixClient> target = endpoint();
    if (const std::shared_ptr<RvKQueue> loop = kq.lock(); loop && target) {
        (void)loop->write(target, frame.data(), frame.size());  // always true: failures come as events
    }
}

void RvTetherIPCClient::sendShared(std::string_view head, std::string_view body,
                                   std::shared_ptr<const void> owner, std::string_view tail) noexcept {
    const std::shared_ptr<RvKQueueUnixClient> target = endpoint();
    if (const std::shared_ptr<RvKQueue> loop = kq.lock(); loop && target) {
        target->writeShared(head, {std::move(owner), body.data(), body.size()}, tail);
    }
}

bool RvTetherIPCClient::parseProtocolBuffer(const char* buffer, std::uint64_t size,
                                            std::uint64_t* dropSize) noexcept {
    const std::string_view bytes(buffer, size);
    std::size_t consumed = 0;
    for (;;) {
        Frame frame;
        switch (cutFrame(bytes.substr(consumed), frame)) {
            case FrameCut::kPartial:
                *dropSize = consumed;
                return true;
            case FrameCut::kInvalid:
                complain("invalid protocol\n");
                return false;
            case FrameCut::kComplete:
                break;
        }
        if (!deliverFrame(frame.command, frame.body)) {
            return false;
        }
        consumed += kFrameHeaderBytes + frame.body.size();
    }
}

bool RvTetherIPCClient::deliverFrame(std::int32_t command, std::string_view body) noexcept {
    ReplyDecoder decoder;
    switch (decoder.decode(body)) {
        case DecodeResult::kInvalid:
            complain("cannot parse protocol");
            return false;
        case DecodeResult::kNotObject:
            complain("cannot parse JSON, got wrong top-level object");
            return false;
        case DecodeResult::kObject:
            break;
    }
    if (const auto callback = onData()) {
        (*callback)(command, decoder.object());
    }
    return true;
}

void RvTetherIPCClient::getDeviceList() noexcept {
    sendJSON(nullptr, kCmdDeviceList);
}

void RvTetherIPCClient::getConnectionList() noexcept {
    sendJSON(nullptr, kCmdConnectionList);
}

void RvTetherIPCClient::requestKillConnection(const char* host, const std::uint16_t* port) noexcept {
    Request request(2, kNoDictionary);
    request.withText("host", host, kNoObject);
    if (port != nullptr) {
        request.with("port", *port, kNoObjects);
    }
    (void)request.send(*this, kCmdKillConnection);  // the failure has been told
}

void RvTetherIPCClient::requestDisconnectDevice(std::uint32_t deviceId) noexcept {
    (void)Request(1, kNoDictionary).with("id", deviceId, kNoObjects).send(*this, kCmdDisconnectDevice);
}

void RvTetherIPCClient::startRuleTransaction() noexcept {
    sendJSON(nullptr, kCmdStartRuleTransaction);
}

void RvTetherIPCClient::getRuleList() noexcept {
    sendJSON(nullptr, kCmdGetRules);
}

// In one piece: with a part of it queued the rest might find no memory, and half a frame would leave.
bool RvTetherIPCClient::loadRuleList(std::string_view rules, std::shared_ptr<const void> owner) noexcept {
    constexpr std::string_view kBefore = R"({"rules":)";
    constexpr std::string_view kAfter = "}";
    const std::uint64_t length = kBefore.size() + rules.size() + kAfter.size();
    if (length > std::numeric_limits<std::uint32_t>::max()) {
        complain(kNoDictionary);
        return false;
    }
    std::array<char, kFrameHeaderBytes + kBefore.size()> start;
    encodeFrameHeader({kCmdLoadRules, static_cast<std::uint32_t>(length)}, start.data());
    std::copy(kBefore.begin(), kBefore.end(), start.begin() + kFrameHeaderBytes);
    const std::string_view head(start.data(), start.size());
    if (owner && rules.size() >= kLeastSharedBytes) {
        sendShared(head, rules, std::move(owner), kAfter);
        return true;
    }
    try {
        std::string frame;
        frame.reserve(head.size() + rules.size() + kAfter.size());
        send(frame.append(head).append(rules).append(kAfter));
        return true;
    } catch (const std::exception&) {
        complain(kNoDictionary);
        return false;
    }
}

bool RvTetherIPCClient::insertRuleForDevice(std::uint32_t deviceId, std::string_view action) noexcept {
    return Request(2, kNoDictionary)
        .with("id", deviceId, kNoObjects)
        .withText("action", action, kNoObjects)
        .send(*this, kCmdInsertRule);
}

bool RvTetherIPCClient::testRuleForDevice(std::uint32_t deviceId, std::string_view type,
                                          const char* host) noexcept {
    Request request(3, kNoDictionary);
    request.with("id", deviceId, kNoNumber).withText("type", type, kNoString);
    if (type == "net") {
        request.withText("addr", host, kNoString);
    }
    return request.send(*this, kCmdTestRule);
}

void RvTetherIPCClient::endRuleTransaction(bool commit) noexcept {
    (void)Request(1, kNoDictionary)
        .withText("action", commit ? "commit" : "rollback", kNoObjects)
        .send(*this, kCmdEndRuleTransaction);
}

void RvTetherIPCClient::getPreferences() noexcept {
    sendJSON(nullptr, kCmdGetPreferences);
}

bool RvTetherIPCClient::addPreferencesWithDevice(std::string_view hardwareId) noexcept {
    return Request(2, kNoDictionaryLine)
        .withPreferences(kNoPreferencesLine)
        .withText("hwid", hardwareId, kNoDictionaryLine)
        .send(*this, kCmdAddPreferences);
}

bool RvTetherIPCClient::removePreferencesWithDevice(std::string_view hardwareId) noexcept {
    return Request(1, kNoDictionaryLine)
        .withText("hwid", hardwareId, kNoDictionaryLine)
        .send(*this, kCmdRemovePreferences);
}
