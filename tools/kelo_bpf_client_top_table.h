// The process table behind `kelobpf-client top`: seeded from a task dump and
// kept current by the service's derived events, so that a refresh costs a
// sort of the table and nothing else (no /proc reads).
//
// - 50001 process_created: adds the process (1 thread, no memory yet) unless
//   the table has it;
// - 50002 process_exited: removes it;
// - 50003 threads_changed: sets its thread count;
// - 50004 rss_changed: sets its four RSS figures, parent and name.
// The service reports thread counts in steps of 11 and RSS in steps of
// 16 KiB, and neither for the first 3 s of a process, so the table moves in
// those steps too. Events that arrive before the dump is loaded are kept and
// applied after it.
//
// apply() runs on the subscriber's worker thread, load() and snapshot() on
// the tool's main thread; a mutex keeps them apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/kelo_bpf_client_files.h"
#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {

// One process as shown; sizes in KiB.
struct TopRow {
  int32_t pid = 0;
  int32_t ppid = 0;
  std::string comm;
  int32_t threads = 0;
  int64_t anonKb = 0;
  int64_t fileKb = 0;
  int64_t shmemKb = 0;
  int64_t swapKb = 0;
  // Change of the total since the previous snapshot (a process new since
  // then counts from 0; at the first snapshot every change is 0).
  int64_t changeKb = 0;
  int64_t totalKb() const { return anonKb + fileKb + shmemKb + swapKb; }
};

struct TopSnapshot {
  // Largest total first, then by pid.
  std::vector<TopRow> rows;
  int64_t threads = 0;
  int64_t anonKb = 0;
  int64_t fileKb = 0;
  int64_t shmemKb = 0;
  int64_t swapKb = 0;
  // Events applied since the previous snapshot.
  uint64_t events = 0;
};

class TopTable {
 public:
  // Replaces the table with the dump's rows, then applies the events that
  // came before it.
  void load(const TaskDump& dump) EXCLUDES(mutex);
  // One event record of a subscribed type; other records are ignored.
  void apply(const char* record, size_t size) EXCLUDES(mutex);
  // The table sorted for display; starts the next change interval. The
  // second form reuses the storage of `out`.
  TopSnapshot snapshot() EXCLUDES(mutex);
  void snapshot(TopSnapshot* out) EXCLUDES(mutex);

 private:
  struct Entry {
    TopRow row;
    // Total at the previous snapshot.
    int64_t shownTotalKb = 0;
  };

  void applyLocked(const char* record, size_t size) REQUIRES(mutex);

  Mutex mutex;
  bool loaded GUARDED_BY(mutex) = false;
  std::map<int32_t, Entry> entries GUARDED_BY(mutex);
  std::vector<std::string> early GUARDED_BY(mutex);
  uint64_t events GUARDED_BY(mutex) = 0;
};

// How a snapshot is laid out.
struct TopScreen {
  // Columns of the terminal (0: lines are not cut).
  int width = 0;
  // Lines of the terminal (0: every row is printed).
  int height = 0;
  // Seconds between refreshes, for the header.
  double delay = 1.0;
  // Wall-clock time for the header ("HH:MM:SS").
  std::string clock;
};

// The header lines and the rows, each line ending in '\n'. The second form
// writes into `out`, reusing its storage.
std::string RenderTop(const TopSnapshot& snapshot, const TopScreen& screen);
void RenderTop(const TopSnapshot& snapshot, const TopScreen& screen, std::string* out);

// A task name for a terminal: control bytes and bytes that are not valid
// UTF-8 as \xNN, blanks kept.
std::string PrintableComm(const std::string& comm);

}  // namespace Bpf
}  // namespace Kelo
