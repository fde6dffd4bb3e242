/// Connected sockets, and the clocks of the benchmarks.
#ifndef RV_BENCH_SOCKETS_H
#define RV_BENCH_SOCKETS_H

#include <array>
#include <cstddef>

namespace enginebench {

enum class Family { kUnix, kTcp };

/// Both ends of a connection, in blocking mode; over TCP without Nagle's delay. Ends the program on failure.
std::array<int, 2> connectedPair(Family family);

/// Ends the program if a call that prepares a benchmark failed; returns its result.
int must(int result);

/// The whole message, blocking; ends the program on failure.
void sendAll(int fd, std::size_t bytes);
void receiveAll(int fd, std::size_t bytes);

/// Lets the process have as many descriptors as it may.
void raiseDescriptorLimit();

double wallSeconds();
/// Of all threads of this process, in user and system mode.
double cpuSeconds();

}  // namespace enginebench

#endif
