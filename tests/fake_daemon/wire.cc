#include "fake_daemon/wire.h"

#include <cstring>

namespace fake {

std::string header(std::uint32_t code, std::uint32_t length) {
    std::string bytes(kHeaderBytes, '\0');
    std::memcpy(bytes.data(), &code, sizeof code);
    std::memcpy(bytes.data() + sizeof code, &length, sizeof length);
    return bytes;
}

std::string frame(std::uint32_t code, std::string_view body) {
    std::string bytes = header(code, static_cast<std::uint32_t>(body.size()));
    bytes += body;
    return bytes;
}

bool cutFrame(std::string& bytes, Frame& cut) {
    if (bytes.size() < kHeaderBytes) {
        return false;
    }
    std::uint32_t length = 0;
    std::memcpy(&length, bytes.data() + sizeof cut.code, sizeof length);
    if (bytes.size() - kHeaderBytes < length) {
        return false;
    }
    std::memcpy(&cut.code, bytes.data(), sizeof cut.code);
    cut.body = bytes.substr(kHeaderBytes, length);
    bytes.erase(0, kHeaderBytes + length);
    return true;
}

}  // namespace fake
