/// A daemon client without a daemon: what it sends is recorded, what it receives comes from the input.
///
/// The program is linked with --wrap=kRvKQueueWrite (see CMakeLists.txt), so that nothing is ever queued.
#ifndef RV_FUZZ_OFFLINE_CLIENT_H
#define RV_FUZZ_OFFLINE_CLIENT_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "IPCClient.h"

/// One for the whole program, made at the first call; its engine never runs.
const std::shared_ptr<RvTetherIPCClient>& offlineClient();

/// The frames that have been sent since the last call.
std::vector<std::string> takeSent();

/// The receive buffer of a connection: keeps what the client does not drop.
class Receiver {
  public:
    /// Hands the bytes over behind those that were kept. Returns false once the client has refused them.
    bool receive(std::string_view bytes);
    std::size_t kept() const { return buffer_.size(); }

  private:
    std::string buffer_;
    bool refused_ = false;
};

/// The bytes of a frame.
std::string frameOf(std::uint32_t code, std::string_view body);

#endif
