/// An endpoint's way back to its loop.
#ifndef RV_LIBIO_PARENT_LOOP_H
#define RV_LIBIO_PARENT_LOOP_H

#include <memory>
#include <utility>

class RvKQueue;
struct kevent;

/// Holds the loop weakly: it may go away before the endpoint. Constant, so that any thread may use it.
class ParentLoop {
  public:
    explicit ParentLoop(std::weak_ptr<RvKQueue> parent) noexcept : loop(std::move(parent)) {}

    /// Whether the calling thread is the loop's I/O thread.
    bool isHere() const noexcept;

    /// Hands the change to the loop; does nothing when the loop is gone.
    void submit(const struct kevent& change) const noexcept;

  private:
    const std::weak_ptr<RvKQueue> loop;
};

#endif
