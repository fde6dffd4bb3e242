#include "fake_daemon/script.h"

#include <utility>

#include "fake_daemon/wire.h"

namespace fake {

Script& Script::add(Step::Kind kind, std::string bytes) {
    steps_.push_back({kind, std::move(bytes)});
    return *this;
}

Script& Script::receive() {
    return add(Step::Kind::kReceive);
}

Script& Script::send(std::string bytes) {
    return add(Step::Kind::kSend, std::move(bytes));
}

Script& Script::sendFrame(std::uint32_t code, std::string_view body) {
    return send(frame(code, body));
}

Script& Script::reply(std::uint32_t code, std::string_view body) {
    return receive().sendFrame(code, body);
}

Script& Script::drain() {
    return add(Step::Kind::kDrain);
}

Script& Script::hold() {
    return add(Step::Kind::kHold);
}

Script& Script::close() {
    return add(Step::Kind::kClose);
}

}  // namespace fake
