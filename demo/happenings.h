/// Lets things happen in the demo, one at a time, so that there is something to monitor.
#ifndef RV_DEMO_HAPPENINGS_H
#define RV_DEMO_HAPPENINGS_H

#include <cstddef>
#include <cstdint>

#include "demo/state.h"

namespace demo {

/// A visitor plugs in a memory stick, a host connects, has the stick for a while and goes, and the stick is
/// pulled out; then all again. Used by the thread that uses the state.
class Happenings {
  public:
    /// The state is borrowed and must live longer.
    explicit Happenings(State& changed) noexcept : state(changed) {}

    /// Does the next thing that is possible: rules may refuse the stick to the host, and clients may have
    /// dropped the connection or unplugged the stick. Throws std::bad_alloc.
    void next();

  private:
    bool plugStick();
    bool connectHost();
    bool useStick();
    bool releaseStick();
    bool disconnectHost();
    bool unplugStick();

    State& state;
    std::size_t step = 0;
    std::uint32_t stickId = 0;  ///< of the last stick; 0: there was none
};

}  // namespace demo

#endif
