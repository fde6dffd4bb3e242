/// RvTetherIPCClient: the tool's link to the daemon, one operation per request and three callbacks.
///
/// The client owns one Unix-domain endpoint on the control socket. Requests leave as frames; replies and
/// events of the daemon come back through one data callback, told apart by their command code only: the
/// client keeps no record of outstanding requests. See docs/protocol.md, "Requests".
#ifndef RV_IPCCLIENT_H
#define RV_IPCCLIENT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "ipc/callback_slot.h"
#include "ipc/command.h"
#include "ipc/json.h"
#include "platform/lock.h"

class RvKQueue;
class RvKQueueUnixClient;

inline constexpr char kControlSocketPath[] = "/var/run/rvusbpctl.sock";

class RvTetherIPCClient : public std::enable_shared_from_this<RvTetherIPCClient> {
    struct Private {};

  public:
    using OnConnected = std::function<void()>;
    /// command  the frame's code; reply  its dictionary, borrowed until the callback returns
    using OnData = std::function<void(std::int32_t command, const JsonObject& reply)>;
    using OnError = std::function<void()>;

    /// Creates the client and its endpoint on `kqueue`, which is held weakly. Nothing flows before start().
    /// Returns null when the endpoint cannot be created; the engine has logged why. Any thread.
    static std::shared_ptr<RvTetherIPCClient> initWithKQueue(
        const std::shared_ptr<RvKQueue>& kqueue) noexcept;

    RvTetherIPCClient(Private, const std::shared_ptr<RvKQueue>& kqueue,
                      std::shared_ptr<RvKQueueUnixClient> endpoint) noexcept;
    RvTetherIPCClient(const RvTetherIPCClient&) = delete;
    RvTetherIPCClient& operator=(const RvTetherIPCClient&) = delete;
    ~RvTetherIPCClient();

    /// The callbacks run on the engine's I/O thread. Setting one replaces it; one that is not set is not
    /// called. A setter returns false, and leaves the callback as it was, when there is no memory for it. A
    /// getter returns the callback that is set at that moment, or null. Any thread.
    bool setOnConnected(OnConnected callback) noexcept;
    bool setOnData(OnData callback) noexcept;
    bool setOnError(OnError callback) noexcept;
    std::shared_ptr<const OnConnected> onConnected() const noexcept;
    std::shared_ptr<const OnData> onData() const noexcept;
    std::shared_ptr<const OnError> onError() const noexcept;

    /// Starts the endpoint, whose event block keeps this client alive until stop(). Called once, any thread.
    void start() noexcept;
    /// Detaches the endpoint and drops the callbacks; the client is not started again. Any thread.
    void stop() noexcept;

    /// Writes one frame: `dictionary` as compact JSON, or a header alone when it is null. A dictionary that
    /// cannot be turned into JSON gives one message on standard error and no frame. Any thread.
    void sendJSON(const JsonObject* dictionary, std::int32_t command) noexcept;

    /// Cuts complete frames from the front of `buffer`, decodes each and hands it to onData, in order.
    ///
    /// buffer    what has been received so far, `size` bytes; borrowed for the call
    /// dropSize  out, bytes: how many leading bytes are dealt with; left alone on failure
    /// Returns false on a protocol error, with one line on standard error; the connection is then of no use.
    /// Thread: the I/O thread, inside the endpoint's event block. See docs/protocol.md, "Receiving".
    bool parseProtocolBuffer(const char* buffer, std::uint64_t size, std::uint64_t* dropSize) noexcept;

    // Requests. Any thread. Those with a result return true once the frame is handed to the engine; a failure
    // has written its message to standard error and sent nothing. Texts must be UTF-8.
    void getDeviceList() noexcept;
    void getConnectionList() noexcept;
    /// port  null when the connection is named by its host alone
    void requestKillConnection(const char* host, const std::uint16_t* port) noexcept;
    void requestDisconnectDevice(std::uint32_t deviceId) noexcept;
    void startRuleTransaction() noexcept;
    void getRuleList() noexcept;
    /// rules  the whole rule set, in order: the JSON text of an array of records
    /// owner  what keeps `rules` alive and unchanged; many are then sent without being copied. Null: they are
    /// copied
    bool loadRuleList(std::string_view rules, std::shared_ptr<const void> owner = nullptr) noexcept;
    bool insertRuleForDevice(std::uint32_t deviceId, std::string_view action) noexcept;
    /// host  looked at only when `type` is "net"; must not be null then
    bool testRuleForDevice(std::uint32_t deviceId, std::string_view type, const char* host) noexcept;
    void endRuleTransaction(bool commit) noexcept;
    void getPreferences() noexcept;
    bool addPreferencesWithDevice(std::string_view hardwareId) noexcept;
    bool removePreferencesWithDevice(std::string_view hardwareId) noexcept;

  private:
    bool handleEvent(const char* buffer, std::uint64_t size, std::uint64_t* dropSize,
                     std::int32_t event) noexcept;
    /// Hands a whole frame to the engine; the frame is copied.
    void send(std::string_view frame) noexcept;
    /// The same for a frame in three parts, of which the body is kept by its owner.
    void sendShared(std::string_view head, std::string_view body, std::shared_ptr<const void> owner,
                    std::string_view tail) noexcept;
    bool deliverFrame(std::int32_t command, std::string_view body) noexcept;
    void reportError() noexcept;
    std::shared_ptr<RvKQueueUnixClient> endpoint() const noexcept;

    std::weak_ptr<RvKQueue> kq;  ///< the loop that runs the connection; not kept alive
    mutable Lock endpointLock;
    std::shared_ptr<RvKQueueUnixClient> unix_ RV_GUARDED_BY(endpointLock);  ///< strong until stop()

    CallbackSlot<OnConnected> onConnected_;
    CallbackSlot<OnData> onData_;
    CallbackSlot<OnError> onError_;
};

#endif
