#include "tools/kelo_bpf_client_record.h"

#include "bpf/kelo_bpf_events.h"

namespace Kelo {
namespace Bpf {
namespace {

const char* KindName(uint32_t kind) {
  switch (kind) {
    case KELO_TASK_KIND_PROCESS:
      return "process";
    case KELO_TASK_KIND_THREAD:
      return "thread";
    default:
      return nullptr;
  }
}

const char* RssMemberName(int32_t member) {
  switch (member) {
    case KELO_RSS_FILE:
      return "file";
    case KELO_RSS_ANON:
      return "anon";
    case KELO_RSS_SWAP:
      return "swap";
    case KELO_RSS_SHMEM:
      return "shmem";
    default:
      return nullptr;
  }
}

const char* DmabufOpName(uint32_t op) {
  switch (op) {
    case KELO_DMABUF_OP_ALLOCATE:
      return "allocate";
    case KELO_DMABUF_OP_RELEASE:
      return "release";
    case KELO_DMABUF_OP_ATTACH:
      return "attach";
    case KELO_DMABUF_OP_VMAP:
      return "vmap";
    case KELO_DMABUF_OP_MMAP:
      return "mmap";
    default:
      return nullptr;
  }
}

const char* LossSiteName(uint32_t site) {
  switch (site) {
    case KELO_LOSS_SITE_KERNEL:
      return "kernel";
    case KELO_LOSS_SITE_QUEUE:
      return "queue";
    default:
      return nullptr;
  }
}

// Takes the visitor's place when the caller wants the facts only.
class NoFields : public RecordFieldVisitor {
 public:
  void Signed(const char*, int64_t) override {}
  void Unsigned(const char*, uint64_t) override {}
  void Named(const char*, const char*, int64_t) override {}
  void Text(const char*, const std::string&, bool) override {}
  void BeginGroup(const char*, const char*) override {}
  void EndGroup() override {}
};

uint64_t AbsDiff(int64_t a, int64_t b) {
  return a >= b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
                : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
}

// Hands the fields to the visitor and notes the facts on the way.
class Fields {
 public:
  Fields(RecordFieldVisitor* visitor, EventFacts* out) : facts(*out), v(*visitor) {}

  void S(const char* key, int64_t value) { v.Signed(key, value); }
  void U(const char* key, uint64_t value) { v.Unsigned(key, value); }
  void N(const char* key, const char* name, int64_t number) { v.Named(key, name, number); }
  void Ts(const kelo_event_header& header) { U("ts", header.ts); }
  void Pid(int32_t pid) {
    S("pid", pid);
    facts.pid = pid;
  }
  void Comm(const char (&comm)[KELO_COMM_LEN]) {
    facts.comm = CommString(comm, KELO_COMM_LEN);
    v.Text("comm", *facts.comm, false);
  }
  void Path(const char (&path)[KELO_CGROUP_PATH_LEN]) { v.Text("path", CommString(path, KELO_CGROUP_PATH_LEN), true); }
  void Kind(uint32_t kind) { N("kind", KindName(kind), kind); }
  // The four figures as the members of group `key`, in the order given.
  void Rss(const char* key, const char* textPrefix, const int (&order)[KELO_RSS_MEMBERS],
           const int64_t (&rss)[KELO_RSS_MEMBERS]) {
    v.BeginGroup(key, textPrefix);
    for (int member : order) S(RssMemberName(member), rss[member]);
    v.EndGroup();
  }

  EventFacts& facts;

 private:
  RecordFieldVisitor& v;
};

// The order of the figures in the derived RSS record, and in a task snapshot.
constexpr int RSS_RECORD_ORDER[KELO_RSS_MEMBERS] = {KELO_RSS_FILE, KELO_RSS_ANON, KELO_RSS_SWAP, KELO_RSS_SHMEM};
constexpr int RSS_INIT_ORDER[KELO_RSS_MEMBERS] = {KELO_RSS_FILE, KELO_RSS_ANON, KELO_RSS_SHMEM, KELO_RSS_SWAP};

// Decodes a record of a known layout; false when the type has no layout or
// the record is too short.
bool Decode(uint32_t type, const char* bytes, size_t size, Fields* fields) {
  Fields& f = *fields;
  switch (type) {
    case KELO_EVENT_TASK_INIT: {
      kelo_task_init_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Ts(e.header);
      f.Pid(e.pid);
      f.S("ppid", e.ppid);
      f.U("uid", e.uid);
      f.S("threads", e.thread_num);
      f.Comm(e.comm);
      int64_t rss[KELO_RSS_MEMBERS];
      rss[KELO_RSS_FILE] = e.rss_file;
      rss[KELO_RSS_ANON] = e.rss_anon;
      rss[KELO_RSS_SHMEM] = e.rss_shmem;
      rss[KELO_RSS_SWAP] = e.rss_swap;
      f.Rss("rss", "rss_", RSS_INIT_ORDER, rss);
      f.S("init_time", e.init_time);
      return true;
    }
    case KELO_EVENT_RSS_STAT: {
      kelo_rss_stat_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Ts(e.header);
      f.Pid(e.pid);
      f.N("member", RssMemberName(e.member), e.member);
      f.S("size", e.size);
      f.facts.rssMember = e.member;
      f.facts.rssSize = e.size;
      return true;
    }
    case KELO_EVENT_TASK_CREATE: {
      kelo_task_create_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Ts(e.header);
      f.Pid(e.pid);
      f.S("ppid", e.ppid);
      f.U("uid", e.uid);
      f.Comm(e.comm);
      f.Kind(e.kind);
      return true;
    }
    case KELO_EVENT_TASK_EXIT: {
      kelo_task_exit_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Ts(e.header);
      f.Pid(e.pid);
      f.Comm(e.comm);
      f.Kind(e.kind);
      f.facts.processExit = e.kind == KELO_TASK_KIND_PROCESS;
      return true;
    }
    case KELO_EVENT_DMABUF_SIZE: {
      kelo_dmabuf_size_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Ts(e.header);
      f.Pid(e.pid);
      f.S("allocated", e.allocated_size);
      f.S("referenced", e.referenced_size);
      return true;
    }
    case KELO_EVENT_CGROUP_ATTACH: {
      kelo_cgroup_attach_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Ts(e.header);
      f.Pid(e.pid);
      f.Comm(e.comm);
      f.S("root", e.dst_root);
      f.S("level", e.dst_level);
      f.U("id", e.dst_id);
      f.Path(e.path);
      return true;
    }
    case KELO_EVENT_FD_UPDATE: {
      kelo_fd_update_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Ts(e.header);
      f.Pid(e.pid);
      f.S("fd", e.fd);
      f.U("open_count", e.open_count);
      f.Comm(e.comm);
      return true;
    }
    case KELO_EVENT_DMABUF_UPDATE: {
      kelo_dmabuf_update_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Ts(e.header);
      f.N("op", DmabufOpName(e.op), e.op);
      f.Pid(e.pid);
      f.U("inode", e.inode);
      f.S("size", e.size);
      f.S("owner", e.owner_pid);
      f.Comm(e.comm);
      return true;
    }
    case KELO_CLIENT_EVENT_PROCESS_CREATE: {
      kelo_process_create_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Pid(e.pid);
      f.S("ppid", e.ppid);
      f.U("uid", e.uid);
      f.Comm(e.comm);
      return true;
    }
    case KELO_CLIENT_EVENT_PROCESS_EXIT: {
      kelo_process_exit_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Pid(e.pid);
      f.Comm(e.comm);
      f.facts.processExit = true;
      return true;
    }
    case KELO_CLIENT_EVENT_THREAD_COUNT: {
      kelo_thread_count_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.Pid(e.pid);
      f.S("ppid", e.ppid);
      f.U("uid", e.uid);
      f.S("old_threads", e.old_thread_num);
      f.S("threads", e.thread_num);
      return true;
    }
    case KELO_CLIENT_EVENT_RSS_CHANGE: {
      kelo_rss_change_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      // Copied out of the packed struct before their addresses are taken.
      int64_t rss[KELO_RSS_MEMBERS];
      int64_t rssOld[KELO_RSS_MEMBERS];
      for (int m = 0; m < KELO_RSS_MEMBERS; ++m) {
        rss[m] = e.rss[m];
        rssOld[m] = e.rss_old[m];
      }
      f.Pid(e.pid);
      f.S("ppid", e.ppid);
      f.U("uid", e.uid);
      f.Comm(e.comm);
      f.Rss("rss", "", RSS_RECORD_ORDER, rss);
      f.Rss("rss_old", "old_", RSS_RECORD_ORDER, rssOld);
      uint64_t delta = 0;
      for (int m = 0; m < KELO_RSS_MEMBERS; ++m) delta += AbsDiff(rss[m], rssOld[m]);
      f.facts.rssDelta = delta;
      return true;
    }
    case KELO_CLIENT_EVENT_EVENTS_LOST: {
      kelo_events_lost_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      f.S("lost_type", e.lost_type);
      f.N("site", LossSiteName(e.site), e.site);
      f.U("count", e.count);
      f.U("first_ts", e.first_ts);
      f.U("last_ts", e.last_ts);
      return true;
    }
    default:
      return false;
  }
}

}  // namespace

EventFacts DecodeRecord(const char* record, size_t size, RecordFieldVisitor* visitor) {
  EventFacts facts;
  if (size < sizeof(facts.type)) return facts;
  memcpy(&facts.type, record, sizeof(facts.type));
  facts.typed = true;
  NoFields none;
  Fields fields(visitor != nullptr ? visitor : &none, &facts);
  facts.decoded = Decode(facts.type, record, size, &fields);
  return facts;
}

std::string CommString(const char* comm, size_t length) { return std::string(comm, strnlen(comm, length)); }

size_t Utf8SequenceLength(const std::string& bytes, size_t i) {
  const auto at = [&](size_t k) { return static_cast<unsigned char>(bytes[k]); };
  const unsigned char lead = at(i);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80, high = 0xbf;  // bounds of the second byte
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;   // no overlong forms
    if (lead == 0xed) high = 0x9f;  // no surrogates
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;   // no overlong forms
    if (lead == 0xf4) high = 0x8f;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  if (i + length > bytes.size()) return 0;
  if (at(i + 1) < low || at(i + 1) > high) return 0;
  for (size_t k = 2; k < length; ++k) {
    if (at(i + k) < 0x80 || at(i + k) > 0xbf) return 0;
  }
  return length;
}

std::string EscapedComm(const std::string& comm, bool asWord) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < comm.size();) {
    const unsigned char c = static_cast<unsigned char>(comm[i]);
    const size_t length = asWord ? 1 : Utf8SequenceLength(comm, i);
    const bool escape = asWord ? c <= ' ' || c >= 0x7f : length == 0 || c < 0x20 || c == 0x7f;
    if (escape) {
      const char escaped[] = {'\\', 'x', DIGITS[c >> 4], DIGITS[c & 0xf]};
      out.append(escaped, sizeof(escaped));
      ++i;
    } else {
      out.append(comm, i, length);
      i += length;
    }
  }
  return out;
}

}  // namespace Bpf
}  // namespace Kelo
