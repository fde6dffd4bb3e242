/// Cuts the frames that clients send and builds those that they get.
#ifndef RV_DEMO_REQUEST_FRAME_H
#define RV_DEMO_REQUEST_FRAME_H

#include <cstdint>
#include <string>
#include <string_view>

#include "ipc/frame.h"
#include "ipc/json.h"

namespace demo {

/// Looks at the front of `bytes` for one frame as the daemon accepts it. Requests without parameters have no
/// body, so a length of 0 is as good as any up to kMaxBodyBytes: frame.body is then empty.
///
/// frame  out; set only for kComplete, its body borrowing from `bytes`
/// Pure; any thread.
FrameCut cutRequest(std::string_view bytes, Frame& frame) noexcept;

/// A whole frame with `body` as compact JSON. Throws std::bad_alloc.
std::string makeFrame(std::int32_t command, const JsonObject& body);

}  // namespace demo

#endif
