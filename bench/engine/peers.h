/// The same two jobs for each event loop: a connection between two loops, each on a thread of its own.
#ifndef RV_BENCH_PEERS_H
#define RV_BENCH_PEERS_H

#include <cstddef>

/// Sends a message of `messageBytes` to and fro `rounds` times. Returns the seconds it took, without the
/// set-up.
double rvioPingPong(std::size_t messageBytes, std::size_t rounds);
double uvPingPong(std::size_t messageBytes, std::size_t rounds);

/// Sends `totalBytes` one way in writes of `writeBytes`, each queued when the one before has left or, for
/// rvio, as many ahead as the receiver has confirmed. Returns the seconds until the last byte was received.
double rvioBulk(std::size_t writeBytes, std::size_t totalBytes);
double uvBulk(std::size_t writeBytes, std::size_t totalBytes);

#endif
