// Datagrams, both ways and at two ports: what becomes of each is accounted for.
//
//   of a peer       a whole packet reaches the Center as it was sent, once and in order, or is dropped because the Center is
//                   busy or refuses, or because the socket was full; anything else is dropped with the line that says why
//   of the Center   a packet leaves as one datagram, once and in order, or is dropped with the line that says so, or
//                   is still in the queue when the relay ends; one for a port that is not served stays the Center's
//   a port          never goes deaf: what its socket holds is gone through, and what comes afterwards arrives
#ifndef TESTS_RACE_SIMULATION_DATAGRAMS_HPP
#define TESTS_RACE_SIMULATION_DATAGRAMS_HPP

namespace simulation {

/// Until every datagram has come to its end.
void run_datagrams();
/// The Center stops the relay at any moment.
void run_last_datagrams();

} // namespace simulation

#endif
