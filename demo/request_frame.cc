#include "demo/request_frame.h"

#include <boost/json/serialize.hpp>
#include <cstring>

namespace demo {

FrameCut cutRequest(std::string_view bytes, Frame& frame) noexcept {
    if (bytes.size() < kFrameHeaderBytes) {
        return FrameCut::kPartial;
    }
    FrameHeader header;
    std::memcpy(&header.command, bytes.data(), sizeof header.command);
    std::memcpy(&header.length, bytes.data() + sizeof header.command, sizeof header.length);
    if (header.length > 0) {
        return cutFrame(bytes, frame);
    }
    frame = {static_cast<std::int32_t>(header.command), bytes.substr(kFrameHeaderBytes, 0)};
    return FrameCut::kComplete;
}

std::string makeFrame(std::int32_t command, const JsonObject& body) {
    const std::string text = boost::json::serialize(body);
    std::string frame(kFrameHeaderBytes, '\0');
    encodeFrameHeader({static_cast<std::uint32_t>(command), static_cast<std::uint32_t>(text.size())},
                      frame.data());
    return frame.append(text);
}

}  // namespace demo
