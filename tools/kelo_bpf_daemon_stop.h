// The hosting daemon's way out of a running service.
//
// The service has no orderly shutdown of its own: stop() ends the client
// endpoint and clears the running flag, and each producer thread notices
// only when its ring-buffer poll next returns. The polls wait without a
// time-out, and the GPL ring buffer can stay silent for good, so the daemon
// interrupts them: it sends WAKE_SIGNAL (handled by a handler that does
// nothing, so the poll returns EINTR and the producer re-checks the flag)
// to each producer thread, found by its thread name, until KeloBpfService's
// Wait() has joined both. This is for a service that was made ready: a
// producer that never saw the readiness property sleeps in its readiness
// wait and cannot be joined (it holds nothing that needs releasing).
#pragma once

#include <signal.h>

#include <chrono>

namespace Kelo {
namespace Bpf {

// Interrupts a producer's poll. Never blocked by the daemon's threads.
inline constexpr int WAKE_SIGNAL = SIGUSR1;

// Installs the do-nothing handler of WAKE_SIGNAL (without SA_RESTART, so an
// interrupted wait returns). To be called before the service starts.
bool InstallWakeHandler();

// Sends WAKE_SIGNAL to every thread of this process named like a producer;
// returns how many were signalled.
int WakeProducers();

// Stops the service and waits up to `grace` for Wait() to join the producers,
// waking them as it goes. True when they were joined; false when the time
// ran out (the joining thread is left behind, and only _exit ends the
// process safely then).
bool StopServiceAndJoin(std::chrono::milliseconds grace);

}  // namespace Bpf
}  // namespace Kelo
