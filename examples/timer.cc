// timer: ticks three times, 20 ms apart, and ends.
#include "libio-macOS/RvKQueueTimer.h"

#include <atomic>
#include <cstdio>

#include "libio-macOS/RvKQueue.h"

int main() {
    const auto loop = RvKQueue::initWithSubsystem("org.example.timer");
    if (!loop) return 1;
    loop->start();

    const auto timer = loop->createTimer(20, false);  // milliseconds; not one-shot
    if (!timer) return 1;
    std::atomic_flag done;
    int ticks = 0;  // the I/O thread's
    loop->startObject(timer, [&](RvKQueueEventProtocol* object, auto...) {
        std::printf("tick %d\n", ++ticks);
        if (ticks == 3) {
            loop->stopObject(object);
            done.test_and_set();
            done.notify_one();
        }
        return true;
    });

    done.wait(false);
    loop->stop();
    return 0;
}
