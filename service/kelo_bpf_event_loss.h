// What the service lost, where, and who is to hear of it.
//
// Events are lost in two places: a kernel program finds its ring buffer full
// (the kernel counts those per type; the service reads the counts and hands
// their growth to KernelLost), and a connection's queue is trimmed because
// its client reads too slowly (QueueTrimmed is shown the packages the trim
// dropped). Every loss is added to the totals the state file shows and to
// the pending span, by event type and site, of each connection that is to
// hear of it. TakeDue turns pending spans into type 50005 records, at most
// once a second per connection, type and site.
//
// A 50005 record that a trim drops before it was sent is not a loss: its
// span goes back to pending and is told again with whatever came since, so
// a client that reads at last hears of every loss exactly once, and a client
// that never reads costs one span per type and site, not a growing backlog.
//
// Thread-safe. The lock is taken inside the registry's lock (trims happen
// while publishing) and is never held while calling out.
#pragma once

#include <android-base/thread_annotations.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "utils/kelo_bpf_ipc_package.h"
#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {

// Ring buffers whose kernel losses are counted: 0 normal set, 1 GPL set.
inline constexpr int LOSS_RING_COUNT = 2;

// Raw types whose records the task handlers turn into derived events: a
// kernel loss of one of them is told to the subscribers of those too.
// Fills *derived (at most 2) and returns how many.
int DerivedEventTypes(int rawType, int (*derived)[2]);

class LossLedger {
 public:
  using Clock = std::chrono::steady_clock;
  // Shortest interval between two reports of one type and site to one
  // connection.
  static constexpr std::chrono::seconds REPORT_INTERVAL{1};

  // `count` losses, the first at firstTs and the last at lastTs (ns).
  struct Span {
    uint64_t count = 0;
    uint64_t firstTs = 0;
    uint64_t lastTs = 0;
    void Add(const Span& other);
  };
  struct Report {
    int fd;
    kelo_events_lost_client_event record;
  };

  // fd's queue dropped `removed` (level-2 packages, oldest first); nowNs
  // stamps the losses of records that carry no time of their own.
  void QueueTrimmed(int fd, const std::deque<KeloIpcPackage>& removed, uint64_t nowNs) EXCLUDES(lock);
  // The kernel counters of ring `ring` grew by span.count for `type`; each
  // connection of `fds` is to hear of it.
  void KernelLost(int ring, int type, const Span& span, const std::vector<int>& fds) EXCLUDES(lock);
  // Forgets fd's pending losses; its trimmed count moves to the total of
  // closed connections. Call once fd's queue is gone.
  void ConnectionClosed(int fd) EXCLUDES(lock);

  // Takes the reports due at `now` for the connections of `subscribers`
  // (those subscribed to 50005, sorted); pending losses of any other
  // connection are dropped, as nobody asked to hear of them. *next becomes
  // the time the next report falls due, or Clock::time_point::max().
  std::vector<Report> TakeDue(Clock::time_point now, const std::vector<int>& subscribers, Clock::time_point* next)
      EXCLUDES(lock);

  // The loss lines of the state file (see the README): kernel losses per
  // ring and type, packages trimmed in all and per live connection, reports
  // queued.
  std::string StateLines() EXCLUDES(lock);

  // Totals since start, for tests and the state file.
  uint64_t KernelLostTotal(int ring, int type) EXCLUDES(lock);
  uint64_t TrimmedTotal() EXCLUDES(lock);

 private:
  // Pending losses of one type at one site.
  using Key = std::pair<int32_t, uint32_t>;
  struct Pending {
    Span span;
    Clock::time_point lastReport = Clock::time_point::min();
  };
  struct Connection {
    // Packages its queue dropped, 50005 records aside (those are told again).
    uint64_t trimmed = 0;
    std::map<Key, Pending> pending;
  };

  void AddPendingLocked(int fd, const Key& key, const Span& span) REQUIRES(lock);

  Mutex lock;
  std::map<int, Connection> connections GUARDED_BY(lock);
  uint64_t kernelLost[LOSS_RING_COUNT][KELO_RB_LOST_ENTRIES] GUARDED_BY(lock) = {};
  uint64_t trimmedClosed GUARDED_BY(lock) = 0;
  uint64_t reportsQueued GUARDED_BY(lock) = 0;
};

}  // namespace Bpf
}  // namespace Kelo
