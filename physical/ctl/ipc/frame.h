/// The frame of the control socket: an 8-byte header and a JSON body, as pure bytes.
///
/// Header: two unsigned 32-bit integers in host byte order, command code and body length.
/// See docs/protocol.md, "Frame". All functions are pure and may be called on any thread.
#ifndef RV_IPC_FRAME_H
#define RV_IPC_FRAME_H

#include <cstddef>
#include <cstdint>
#include <string_view>

inline constexpr std::size_t kFrameHeaderBytes = 8;
inline constexpr std::uint32_t kMaxBodyBytes = 104'857'600;  // 100 MiB

struct FrameHeader {
    std::uint32_t command = 0;
    std::uint32_t length = 0;  ///< body bytes that follow the header
};

/// Writes the header's kFrameHeaderBytes bytes to `out`.
void encodeFrameHeader(const FrameHeader& header, char* out) noexcept;

enum class FrameCut {
    kComplete,  ///< a whole frame stands at the front
    kPartial,   ///< more bytes are needed; what is there so far is acceptable
    kInvalid,   ///< the length is one that a receiver refuses
};

struct Frame {
    std::int32_t command = 0;
    std::string_view body;  ///< a view into the bytes that were cut; never empty
};

/// Looks at the front of `bytes` for one frame as a receiver accepts it: a body of 1 to kMaxBodyBytes bytes.
///
/// frame  out; set only for kComplete, its body borrowing from `bytes`
FrameCut cutFrame(std::string_view bytes, Frame& frame) noexcept;

#endif
