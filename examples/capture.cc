// capture INTERFACE: tells the length of the next packet on a network interface.
#include <atomic>
#include <cstdio>
#include <cstring>

#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueBPF.h"
#include "platform/packet_capture.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const auto loop = RvKQueue::initWithSubsystem("org.example.capture");
    if (!loop) return 1;
    loop->start();

    const auto capture = loop->createBPF(argv[1], 65536);  // bytes
    if (!capture) return 1;                                // no such interface, or no right to capture
    std::atomic_flag done;
    bool isCaptured = false;  // the I/O thread's until done is set
    loop->startObject(capture, [&](RvKQueueEventProtocol* object, const char* buffer, std::uint64_t size,
                                   std::uint64_t*, std::int32_t event) {
        if (event == kEventConnected) {
            std::puts("capturing");
            (void)std::fflush(stdout);
            return true;
        }
        if (event == kEventData && size >= kCaptureHeaderBytes && !isCaptured) {
            // The next record, if there is one, is at captureAlign(bh_hdrlen + bh_caplen).
            bpf_hdr header = {};
            std::memcpy(&header, buffer, kCaptureHeaderBytes);
            std::printf("%u bytes of %u\n", header.bh_caplen, header.bh_datalen);
            isCaptured = true;
        }
        loop->stopObject(object);
        done.test_and_set();
        done.notify_one();
        return true;
    });

    done.wait(false);
    loop->stop();
    return isCaptured ? 0 : 1;
}
