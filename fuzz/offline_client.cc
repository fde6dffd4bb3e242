#include "fuzz/offline_client.h"

#include <cstring>
#include <utility>

#include "fuzz/require.h"
#include "libio-macOS/RvKQueue.h"

namespace {

std::vector<std::string>& sent() {
    static std::vector<std::string> frames;
    return frames;
}

}  // namespace

// The name of RvKQueue::write(RvKQueueEventProtocol*, const void*, std::uint64_t) in an object file.
extern "C" bool __wrap__ZN8RvKQueue5writeEP21RvKQueueEventProtocolPKvm(RvKQueue* loop,
                                                                       RvKQueueEventProtocol* endpoint,
                                                                       const void* bytes, std::uint64_t size);

extern "C" bool __wrap__ZN8RvKQueue5writeEP21RvKQueueEventProtocolPKvm(RvKQueue*, RvKQueueEventProtocol*,
                                                                       const void* bytes,
                                                                       std::uint64_t size) {
    sent().emplace_back(static_cast<const char*>(bytes), size);
    return true;
}

const std::shared_ptr<RvTetherIPCClient>& offlineClient() {
    static const std::shared_ptr<RvKQueue> engine = RvKQueue::initWithSubsystem("fuzz");
    static const std::shared_ptr<RvTetherIPCClient> client = RvTetherIPCClient::initWithKQueue(engine);
    require(client != nullptr, "there is no client");
    return client;
}

std::vector<std::string> takeSent() {
    return std::exchange(sent(), {});
}

bool Receiver::receive(std::string_view bytes) {
    if (refused_) {
        return false;
    }
    buffer_ += bytes;
    // A copy of its own size: reading beyond its end is noticed.
    const std::unique_ptr<char[]> exact(new char[buffer_.size()]);
    std::memcpy(exact.get(), buffer_.data(), buffer_.size());
    std::uint64_t dropSize = buffer_.size();
    refused_ = !offlineClient()->parseProtocolBuffer(exact.get(), buffer_.size(), &dropSize);
    require(dropSize <= buffer_.size(), "more is dropped than there is");
    buffer_.erase(0, static_cast<std::size_t>(dropSize));
    return !refused_;
}

std::string frameOf(std::uint32_t code, std::string_view body) {
    const std::uint32_t header[] = {code, static_cast<std::uint32_t>(body.size())};
    std::string frame(reinterpret_cast<const char*>(header), sizeof header);
    return frame.append(body);
}
