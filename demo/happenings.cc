#include "demo/happenings.h"

#include <algorithm>
#include <iterator>

namespace demo {
namespace {

constexpr char kHost[] = "192.0.2.77";
constexpr std::uint16_t kHostPort = 50312;

Device makeStick() {
    return {.vid = 0xe00a,
            .pid = 0x0008,
            .rev = 0x0100,
            .port = "3-1",
            .name = "Memory stick",
            .serial = "DEMO-1",
            .builtIn = false,
            .classes = {{0x08, 0x06, 0x50}},
            .user = {}};
}

bool isConnected(const State& state) noexcept {
    const auto& connections = state.connections();
    return std::any_of(connections.begin(), connections.end(),
                       [](const Connection& c) { return c.user.addr == kHost; });
}

}  // namespace

void Happenings::next() {
    static constexpr bool (Happenings::*kSteps[])() = {
        &Happenings::plugStick,    &Happenings::connectHost,    &Happenings::useStick,
        &Happenings::releaseStick, &Happenings::disconnectHost, &Happenings::unplugStick,
    };
    bool happened = false;
    for (std::size_t tries = 0; tries < std::size(kSteps) && !happened; ++tries) {
        bool (Happenings::*const attempt)() = kSteps[step];
        happened = (this->*attempt)();
        step = (step + 1) % std::size(kSteps);
    }
}

bool Happenings::plugStick() {
    if (state.find(stickId) != nullptr) {
        return false;
    }
    stickId = state.plug(makeStick());
    return true;
}

bool Happenings::connectHost() {
    if (isConnected(state)) {
        return false;
    }
    state.connect({.user = {.addr = kHost}, .port = kHostPort});
    return true;
}

bool Happenings::useStick() {
    return isConnected(state) && state.use(stickId, {.addr = kHost});
}

bool Happenings::releaseStick() {
    return state.release(stickId);
}

bool Happenings::disconnectHost() {
    return state.dropConnections(kHost, kHostPort) > 0;
}

bool Happenings::unplugStick() {
    return state.unplug(stickId);
}

}  // namespace demo
