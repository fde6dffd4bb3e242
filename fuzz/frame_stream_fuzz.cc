// A stream of frames, cut at places that the input chooses: where it is cut makes no difference.
//
// Input: a byte that says how many bytes of cuts follow, the cuts (sizes of the pieces, used in turn), the
// stream.
#include <algorithm>
#include <boost/json/serialize.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/offline_client.h"
#include "fuzz/require.h"

namespace {

struct Delivery {
    std::vector<std::string> frames;
    bool accepted = true;
    std::size_t kept = 0;
};

/// cuts  sizes of the pieces, used again and again; empty: all at once
Delivery deliver(std::string_view stream, std::string_view cuts) {
    Delivery delivery;
    (void)offlineClient()->setOnData([&](std::int32_t command, const JsonObject& reply) {
        delivery.frames.push_back(std::to_string(command) + boost::json::serialize(reply));
    });
    Receiver receiver;
    for (std::size_t turn = 0; !stream.empty() && delivery.accepted; ++turn) {
        const std::size_t size =
            cuts.empty() ? stream.size() : static_cast<unsigned char>(cuts[turn % cuts.size()]);
        delivery.accepted = receiver.receive(stream.substr(0, size));
        stream.remove_prefix(std::min(stream.size(), size));
    }
    delivery.kept = receiver.kept();
    (void)offlineClient()->setOnData(nullptr);
    return delivery;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    if (input.empty()) {
        return 0;
    }
    const std::size_t count = static_cast<unsigned char>(input[0]);
    input.remove_prefix(1);
    std::string cuts(input.substr(0, count));
    input.remove_prefix(std::min(input.size(), count));
    for (char& cut : cuts) {
        cut = static_cast<char>(cut == 0 ? 1 : cut);
    }
    const Delivery whole = deliver(input, {});
    const Delivery pieces = deliver(input, cuts);
    require(whole.frames == pieces.frames, "frames differ");
    require(whole.accepted == pieces.accepted, "only one way of cutting is refused");
    require(!whole.accepted || whole.kept == pieces.kept, "different rests are kept");
    return 0;
}
