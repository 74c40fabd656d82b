#include "tools/kelo_bpf_client_top_table.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "bpf/kelo_bpf_events.h"
#include "helper/kelo_bpf_helper_strings.h"
#include "tools/kelo_bpf_client_json.h"

namespace Kelo {
namespace Bpf {
namespace {

template <typename Record>
bool CopyRecord(const char* bytes, size_t size, Record* record) {
  if (size < sizeof(Record)) return false;
  memcpy(record, bytes, sizeof(Record));
  return true;
}

// Bytes to KiB as the dump converts them: truncated toward zero.
int64_t Kb(int64_t bytes) { return bytes / 1024; }

// Display columns of `text`: one per character, counting UTF-8 lead bytes.
size_t Columns(const std::string& text) {
  size_t columns = 0;
  for (char c : text) columns += (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  return columns;
}

// `line` cut to `width` columns (0: whole) and ended with '\n'.
std::string Fit(std::string line, int width) {
  if (width > 0 && Columns(line) > static_cast<size_t>(width)) {
    size_t columns = 0;
    size_t i = 0;
    for (; i < line.size(); ++i) {
      if ((static_cast<unsigned char>(line[i]) & 0xc0) != 0x80) {
        if (columns == static_cast<size_t>(width)) break;
        ++columns;
      }
    }
    line.resize(i);
  }
  line.push_back('\n');
  return line;
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

TopSnapshot TopTable::snapshot() {
  TopSnapshot snapshot;
  {
    MutexLock lock(mutex);
    snapshot.rows.reserve(entries.size());
    for (auto& [pid, entry] : entries) {
      TopRow row = entry.row;
      const int64_t total = row.totalKb();
      row.changeKb = total - entry.shownTotalKb;
      entry.shownTotalKb = total;
      snapshot.rows.push_back(std::move(row));
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
  return snapshot;
}

std::string PrintableComm(const std::string& comm) {
  std::string out;
  for (size_t i = 0; i < comm.size();) {
    const unsigned char c = static_cast<unsigned char>(comm[i]);
    const size_t length = Utf8SequenceLength(comm, i);
    if (length == 0 || c < 0x20 || c == 0x7f) {
      out += StringPrintf("\\x%02x", c);
      ++i;
    } else {
      out.append(comm, i, length);
      i += length;
    }
  }
  return out;
}

std::string RenderTop(const TopSnapshot& snapshot, const TopScreen& screen) {
  std::string text;
  text += Fit(StringPrintf("kelobpf top - %s, %zu processes, %" PRId64 " threads, %" PRIu64
                           " events in the last %.1f s",
                           screen.clock.c_str(), snapshot.rows.size(), snapshot.threads, snapshot.events, screen.delay),
              screen.width);
  text += Fit(StringPrintf("RSS KiB: anon %" PRId64 ", file %" PRId64 ", shmem %" PRId64 ", swap %" PRId64
                           ", total %" PRId64,
                           snapshot.anonKb, snapshot.fileKb, snapshot.shmemKb, snapshot.swapKb,
                           snapshot.anonKb + snapshot.fileKb + snapshot.shmemKb + snapshot.swapKb),
              screen.width);
  text += "\n";
  text += Fit(StringPrintf("%7s %7s %5s %10s %10s %10s %10s %10s %10s %s", "PID", "PPID", "THR", "ANON", "FILE",
                           "SHMEM", "SWAP", "TOTAL", "CHANGE", "COMMAND"),
              screen.width);
  constexpr int HEADER_LINES = 4;
  size_t shown = snapshot.rows.size();
  if (screen.height > 0) shown = std::min<size_t>(shown, static_cast<size_t>(std::max(0, screen.height - HEADER_LINES)));
  for (size_t i = 0; i < shown; ++i) {
    const TopRow& row = snapshot.rows[i];
    const std::string change = row.changeKb == 0 ? "0" : StringPrintf("%+" PRId64, row.changeKb);
    text += Fit(StringPrintf("%7d %7d %5d %10" PRId64 " %10" PRId64 " %10" PRId64 " %10" PRId64 " %10" PRId64
                             " %10s %s",
                             row.pid, row.ppid, row.threads, row.anonKb, row.fileKb, row.shmemKb, row.swapKb,
                             row.totalKb(), change.c_str(), PrintableComm(row.comm).c_str()),
                screen.width);
  }
  return text;
}

}  // namespace Bpf
}  // namespace Kelo
