#include "tools/kelo_bpf_client_top_table.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "bpf/kelo_bpf_events.h"
#include "helper/kelo_bpf_helper_strings.h"
#include "tools/kelo_bpf_client_record.h"

namespace Kelo {
namespace Bpf {
namespace {

// Bytes to KiB as the dump converts them: truncated toward zero.
int64_t Kb(int64_t bytes) { return bytes / 1024; }

// Appends `line` (`length` bytes) cut to `width` columns (0: whole) and a
// '\n' to `out`.
void AppendFitted(std::string* out, const char* line, size_t length, int width) {
  size_t keep = length;
  if (width > 0) {
    size_t columns = 0;
    for (keep = 0; keep < length; ++keep) {
      if ((static_cast<unsigned char>(line[keep]) & 0xc0) != 0x80) {
        if (columns == static_cast<size_t>(width)) break;
        ++columns;
      }
    }
  }
  out->append(line, keep);
  out->push_back('\n');
}

void AppendFitted(std::string* out, const std::string& line, int width) {
  AppendFitted(out, line.data(), line.size(), width);
}

}  // namespace

void TopTable::load(const TaskDump& dump) {
  MutexLock lock(mutex);
  entries.clear();
  for (const TaskDumpRow& d : dump.rows) {
    Entry entry;
    entry.row.pid = d.pid;
    entry.row.ppid = d.ppid;
    entry.row.comm = d.comm;
    entry.row.threads = d.threads;
    entry.row.anonKb = d.anonKb;
    entry.row.fileKb = d.fileKb;
    entry.row.shmemKb = d.shmemKb;
    entry.row.swapKb = d.swapKb;
    entry.shownTotalKb = entry.row.totalKb();
    entries[d.pid] = std::move(entry);
  }
  loaded = true;
  for (const std::string& record : early) applyLocked(record.data(), record.size());
  early.clear();
}

void TopTable::apply(const char* record, size_t size) {
  MutexLock lock(mutex);
  if (!loaded) {
    early.emplace_back(record, size);
    return;
  }
  applyLocked(record, size);
}

void TopTable::applyLocked(const char* record, size_t size) {
  uint32_t type = 0;
  if (size < sizeof(type)) return;
  memcpy(&type, record, sizeof(type));
  switch (type) {
    case KELO_CLIENT_EVENT_PROCESS_CREATE: {
      kelo_process_create_client_event e;
      if (!CopyRecord(record, size, &e)) return;
      auto [it, made] = entries.try_emplace(e.pid);
      if (made) {
        it->second.row.pid = e.pid;
        it->second.row.ppid = e.ppid;
        it->second.row.comm = CommString(e.comm, sizeof(e.comm));
        it->second.row.threads = 1;
      }
      break;
    }
    case KELO_CLIENT_EVENT_PROCESS_EXIT: {
      kelo_process_exit_client_event e;
      if (!CopyRecord(record, size, &e)) return;
      entries.erase(e.pid);
      break;
    }
    case KELO_CLIENT_EVENT_THREAD_COUNT: {
      kelo_thread_count_client_event e;
      if (!CopyRecord(record, size, &e)) return;
      auto it = entries.find(e.pid);
      if (it != entries.end()) it->second.row.threads = e.thread_num;
      break;
    }
    case KELO_CLIENT_EVENT_RSS_CHANGE: {
      kelo_rss_change_client_event e;
      if (!CopyRecord(record, size, &e)) return;
      __s64 rss[KELO_RSS_MEMBERS];
      memcpy(rss, e.rss, sizeof(rss));
      auto [it, made] = entries.try_emplace(e.pid);
      TopRow& row = it->second.row;
      if (made) {
        row.pid = e.pid;
        row.threads = 1;
      }
      row.ppid = e.ppid;
      row.comm = CommString(e.comm, sizeof(e.comm));
      row.fileKb = Kb(rss[KELO_RSS_FILE]);
      row.anonKb = Kb(rss[KELO_RSS_ANON]);
      row.swapKb = Kb(rss[KELO_RSS_SWAP]);
      row.shmemKb = Kb(rss[KELO_RSS_SHMEM]);
      break;
    }
    default:
      return;
  }
  ++events;
}

void TopTable::snapshot(TopSnapshot* out) {
  TopSnapshot& snapshot = *out;
  snapshot.rows.clear();
  snapshot.threads = snapshot.anonKb = snapshot.fileKb = snapshot.shmemKb = snapshot.swapKb = 0;
  {
    MutexLock lock(mutex);
    snapshot.rows.reserve(entries.size());
    for (auto& [pid, entry] : entries) {
      snapshot.rows.push_back(entry.row);
      TopRow& row = snapshot.rows.back();
      const int64_t total = row.totalKb();
      row.changeKb = total - entry.shownTotalKb;
      entry.shownTotalKb = total;
    }
    snapshot.events = events;
    events = 0;
  }
  for (const TopRow& row : snapshot.rows) {
    snapshot.threads += row.threads;
    snapshot.anonKb += row.anonKb;
    snapshot.fileKb += row.fileKb;
    snapshot.shmemKb += row.shmemKb;
    snapshot.swapKb += row.swapKb;
  }
  std::sort(snapshot.rows.begin(), snapshot.rows.end(), [](const TopRow& a, const TopRow& b) {
    const int64_t ta = a.totalKb(), tb = b.totalKb();
    return ta != tb ? ta > tb : a.pid < b.pid;
  });
}

TopSnapshot TopTable::snapshot() {
  TopSnapshot snapshot;
  this->snapshot(&snapshot);
  return snapshot;
}

std::string PrintableComm(const std::string& comm) { return EscapedComm(comm, false); }

void RenderTop(const TopSnapshot& snapshot, const TopScreen& screen, std::string* out) {
  std::string& text = *out;
  text.clear();
  AppendFitted(
      &text,
      StringPrintf("kelobpf top - %s, %zu processes, %" PRId64 " threads, %" PRIu64 " events in the last %.1f s",
                   screen.clock.c_str(), snapshot.rows.size(), snapshot.threads, snapshot.events, screen.delay),
      screen.width);
  AppendFitted(
      &text,
      StringPrintf("RSS KiB: anon %" PRId64 ", file %" PRId64 ", shmem %" PRId64 ", swap %" PRId64 ", total %" PRId64,
                   snapshot.anonKb, snapshot.fileKb, snapshot.shmemKb, snapshot.swapKb,
                   snapshot.anonKb + snapshot.fileKb + snapshot.shmemKb + snapshot.swapKb),
      screen.width);
  text += "\n";
  AppendFitted(&text,
               StringPrintf("%7s %7s %5s %10s %10s %10s %10s %10s %10s %s", "PID", "PPID", "THR", "ANON", "FILE",
                            "SHMEM", "SWAP", "TOTAL", "CHANGE", "COMMAND"),
               screen.width);
  constexpr int HEADER_LINES = 4;
  size_t shown = snapshot.rows.size();
  if (screen.height > 0)
    shown = std::min<size_t>(shown, static_cast<size_t>(std::max(0, screen.height - HEADER_LINES)));
  // Room for every row at its usual width, so that the text grows once.
  text.reserve(text.size() + shown * 112);
  std::string line;
  for (size_t i = 0; i < shown; ++i) {
    const TopRow& row = snapshot.rows[i];
    char change[24] = "0";
    if (row.changeKb != 0) snprintf(change, sizeof(change), "%+" PRId64, row.changeKb);
    char numbers[128];
    const int length =
        snprintf(numbers, sizeof(numbers),
                 "%7d %7d %5d %10" PRId64 " %10" PRId64 " %10" PRId64 " %10" PRId64 " %10" PRId64 " %10s ", row.pid,
                 row.ppid, row.threads, row.anonKb, row.fileKb, row.shmemKb, row.swapKb, row.totalKb(), change);
    line.assign(numbers, static_cast<size_t>(std::max(0, std::min<int>(length, sizeof(numbers) - 1))));
    line += PrintableComm(row.comm);
    AppendFitted(&text, line, screen.width);
  }
}

std::string RenderTop(const TopSnapshot& snapshot, const TopScreen& screen) {
  std::string text;
  RenderTop(snapshot, screen, &text);
  return text;
}

}  // namespace Bpf
}  // namespace Kelo
