/// A connection driven by bare readiness: what a program writes itself that uses a loop without streams.
#ifndef RV_BENCH_RAW_CONNECTION_H
#define RV_BENCH_RAW_CONNECTION_H

#include <cstddef>
#include <string>

#include "bench/engine/loop.h"

namespace enginebench {

/// Writes at once, and waits for room only after a write that did not take everything. A read takes 64 KiB.
class RawConnection {
  public:
    enum class Job { kEcho, kPing, kSend, kReceive, kServe };

    /// Takes over the descriptor and makes it non-blocking.
    RawConnection(int descriptor, Job itsJob);
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    int fd() const { return sock; }
    /// Whether the descriptor has to be watched for room.
    bool wantsRoom() const { return !pending.empty() || (job == Job::kSend && left > 0); }

    void begin();
    void onReadable();
    void onWritable();
    void writeOrKeep(const char* bytes, std::size_t size);

    std::size_t left = 0;  ///< rounds of kPing, bytes of kSend and kReceive
    std::string block;     ///< the message of kPing, one write of kSend
    Loop::Done done;

  private:
    void takePing(std::size_t size);
    void sendBlocks();

    int sock;
    Job job;
    std::size_t received = 0;  ///< of the current message
    std::size_t offset = 0;    ///< in the current block
    std::string pending;
};

}  // namespace enginebench

#endif
