#include "ipc/frame.h"

#include <cstring>

void encodeFrameHeader(const FrameHeader& header, char* out) noexcept {
    std::memcpy(out, &header.command, sizeof header.command);
    std::memcpy(out + sizeof header.command, &header.length, sizeof header.length);
}

FrameCut cutFrame(std::string_view bytes, Frame& frame) noexcept {
    if (bytes.size() < kFrameHeaderBytes) {
        return FrameCut::kPartial;
    }
    FrameHeader header;
    std::memcpy(&header.command, bytes.data(), sizeof header.command);
    std::memcpy(&header.length, bytes.data() + sizeof header.command, sizeof header.length);
    // Deliberate: a length of 0 is refused here although this tool sends such frames itself. The daemon never
    // answers with an empty body, so an empty one means that the stream is out of step. Held by
    // FrameCut.EmptyBodyIsRefused.
    if (header.length == 0 || header.length > kMaxBodyBytes) {
        return FrameCut::kInvalid;
    }
    if (bytes.size() - kFrameHeaderBytes < header.length) {
        return FrameCut::kPartial;
    }
    frame.command = static_cast<std::int32_t>(header.command);
    frame.body = bytes.substr(kFrameHeaderBytes, header.length);
    return FrameCut::kComplete;
}
