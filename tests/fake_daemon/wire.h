/// The bytes of a frame, written down independently of the code under test.
///
/// A frame is two unsigned 32-bit integers in host byte order, code and body length, and then the body.
#ifndef RV_FAKE_DAEMON_WIRE_H
#define RV_FAKE_DAEMON_WIRE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fake {

inline constexpr std::size_t kHeaderBytes = 8;

struct Frame {
    std::uint32_t code = 0;
    std::string body;  ///< as received; empty for a frame of exactly eight bytes
};

/// A header alone; the length need not be true.
std::string header(std::uint32_t code, std::uint32_t length);

/// A whole frame.
std::string frame(std::uint32_t code, std::string_view body);

/// Takes the first frame off the front of `bytes`. Returns false, changing nothing, while it is incomplete.
bool cutFrame(std::string& bytes, Frame& cut);

}  // namespace fake

#endif
