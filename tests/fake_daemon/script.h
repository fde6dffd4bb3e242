/// What a fake daemon does on its first connection, step by step.
///
///   Script().reply(6, kOk).reply(9, kOk).drain().hold().close()
///
/// Steps run in order; each waits for its own condition. After the last one the connection stays open and
/// further requests are only recorded.
#ifndef RV_FAKE_DAEMON_SCRIPT_H
#define RV_FAKE_DAEMON_SCRIPT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fake {

struct Step {
    enum class Kind {
        kReceive,  ///< wait for one more whole request
        kSend,     ///< queue the bytes
        kDrain,    ///< wait until the peer has read everything that was sent
        kHold,     ///< wait for FakeDaemon::release()
        kClose,    ///< close the connection once everything queued is on its way
    };
    Kind kind = Kind::kReceive;
    std::string bytes;  ///< of kSend
};

class Script {
  public:
    Script& receive();
    Script& send(std::string bytes);
    Script& sendFrame(std::uint32_t code, std::string_view body);
    /// receive() and sendFrame(): the answer to the next request, whatever that request is.
    Script& reply(std::uint32_t code, std::string_view body);
    Script& drain();
    Script& hold();
    Script& close();

    const std::vector<Step>& steps() const { return steps_; }

  private:
    Script& add(Step::Kind kind, std::string bytes = {});

    std::vector<Step> steps_;
};

}  // namespace fake

#endif
