#include "fuzz/offline_client.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "fuzz/require.h"
#include "libio-macOS/RvKQueue.h"

namespace {

/// Kept with malloc: an operator new that fails is for the client alone.
struct Sent {
    Sent* next;
    std::size_t size;
    char bytes[1];
};

Sent* lastSent = nullptr;

}  // namespace

// The name of RvKQueue::write(RvKQueueEventProtocol*, const void*, std::uint64_t) in an object file.
extern "C" bool __wrap__ZN8RvKQueue5writeEP21RvKQueueEventProtocolPKvm(RvKQueue* loop,
                                                                       RvKQueueEventProtocol* endpoint,
                                                                       const void* bytes, std::uint64_t size);

extern "C" bool __wrap__ZN8RvKQueue5writeEP21RvKQueueEventProtocolPKvm(RvKQueue*, RvKQueueEventProtocol*,
                                                                       const void* bytes,
                                                                       std::uint64_t size) {
    auto* const frame = static_cast<Sent*>(std::malloc(sizeof(Sent) + size));
    require(frame != nullptr, "no memory");
    frame->next = std::exchange(lastSent, frame);
    frame->size = size;
    std::memcpy(frame->bytes, bytes, size);
    return true;
}

const std::shared_ptr<RvTetherIPCClient>& offlineClient() {
    static const std::shared_ptr<RvKQueue> engine = RvKQueue::initWithSubsystem("fuzz");
    static const std::shared_ptr<RvTetherIPCClient> client = RvTetherIPCClient::initWithKQueue(engine);
    require(client != nullptr, "there is no client");
    return client;
}

std::vector<std::string> takeSent() {
    std::vector<std::string> frames;
    while (Sent* const frame = lastSent) {
        frames.emplace(frames.begin(), frame->bytes, frame->size);
        lastSent = frame->next;
        std::free(frame);
    }
    return frames;
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
