#include "tools/kelo_bpf_client_json.h"

#include <cstring>

#include "bpf/kelo_bpf_events.h"
#include "tools/kelo_bpf_client_types.h"

namespace Kelo {
namespace Bpf {
namespace {

template <typename Record>
bool CopyRecord(const char* bytes, size_t size, Record* record) {
  if (size < sizeof(Record)) return false;
  memcpy(record, bytes, sizeof(Record));
  return true;
}

template <size_t N>
std::string Comm(const char (&comm)[N]) {
  return CommString(comm, N);
}

Json Kind(uint32_t kind) {
  if (kind == KELO_TASK_KIND_PROCESS) return "process";
  if (kind == KELO_TASK_KIND_THREAD) return "thread";
  return kind;
}

Json Member(int32_t member) {
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
      return member;
  }
}

Json DmabufOp(uint32_t op) {
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
      return op;
  }
}

// The four figures of a derived RSS record, in the record's order.
Json RssObject(const __s64 (&rss)[KELO_RSS_MEMBERS]) {
  Json object = Json::object();
  object["file"] = static_cast<int64_t>(rss[KELO_RSS_FILE]);
  object["anon"] = static_cast<int64_t>(rss[KELO_RSS_ANON]);
  object["swap"] = static_cast<int64_t>(rss[KELO_RSS_SWAP]);
  object["shmem"] = static_cast<int64_t>(rss[KELO_RSS_SHMEM]);
  return object;
}

uint64_t AbsDiff(int64_t a, int64_t b) {
  return a >= b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
                : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
}

uint64_t RssDelta(const kelo_rss_change_client_event& e) {
  __s64 rss[KELO_RSS_MEMBERS];
  __s64 rssOld[KELO_RSS_MEMBERS];
  memcpy(rss, e.rss, sizeof(rss));
  memcpy(rssOld, e.rss_old, sizeof(rssOld));
  uint64_t delta = 0;
  for (int m = 0; m < KELO_RSS_MEMBERS; ++m) delta += AbsDiff(rss[m], rssOld[m]);
  return delta;
}

// Decodes a record of a known layout into `out` (fields after name) and
// `facts`; false when the type has no layout or the record is too short.
bool Decode(uint32_t type, const char* bytes, size_t size, Json* out, EventFacts* facts) {
  Json& o = *out;
  switch (type) {
    case KELO_EVENT_TASK_INIT: {
      kelo_task_init_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["ts"] = static_cast<uint64_t>(e.header.ts);
      o["pid"] = +e.pid;
      o["ppid"] = +e.ppid;
      o["uid"] = +e.uid;
      o["threads"] = +e.thread_num;
      PutComm(out, "comm", Comm(e.comm));
      o["rss"] = {{"file", static_cast<int64_t>(e.rss_file)},
                  {"anon", static_cast<int64_t>(e.rss_anon)},
                  {"shmem", static_cast<int64_t>(e.rss_shmem)},
                  {"swap", static_cast<int64_t>(e.rss_swap)}};
      o["init_time"] = static_cast<int64_t>(e.init_time);
      facts->pid = +e.pid;
      facts->comm = Comm(e.comm);
      return true;
    }
    case KELO_EVENT_RSS_STAT: {
      kelo_rss_stat_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["ts"] = static_cast<uint64_t>(e.header.ts);
      o["pid"] = +e.pid;
      o["member"] = Member(e.member);
      o["size"] = static_cast<int64_t>(e.size);
      facts->pid = +e.pid;
      facts->rssMember = +e.member;
      facts->rssSize = static_cast<int64_t>(e.size);
      return true;
    }
    case KELO_EVENT_TASK_CREATE: {
      kelo_task_create_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["ts"] = static_cast<uint64_t>(e.header.ts);
      o["pid"] = +e.pid;
      o["ppid"] = +e.ppid;
      o["uid"] = +e.uid;
      PutComm(out, "comm", Comm(e.comm));
      o["kind"] = Kind(e.kind);
      facts->pid = +e.pid;
      facts->comm = Comm(e.comm);
      return true;
    }
    case KELO_EVENT_TASK_EXIT: {
      kelo_task_exit_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["ts"] = static_cast<uint64_t>(e.header.ts);
      o["pid"] = +e.pid;
      PutComm(out, "comm", Comm(e.comm));
      o["kind"] = Kind(e.kind);
      facts->pid = +e.pid;
      facts->comm = Comm(e.comm);
      facts->processExit = e.kind == KELO_TASK_KIND_PROCESS;
      return true;
    }
    case KELO_EVENT_DMABUF_SIZE: {
      kelo_dmabuf_size_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["ts"] = static_cast<uint64_t>(e.header.ts);
      o["pid"] = +e.pid;
      o["allocated"] = static_cast<int64_t>(e.allocated_size);
      o["referenced"] = static_cast<int64_t>(e.referenced_size);
      facts->pid = +e.pid;
      return true;
    }
    case KELO_EVENT_CGROUP_ATTACH: {
      kelo_cgroup_attach_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["ts"] = static_cast<uint64_t>(e.header.ts);
      o["pid"] = +e.pid;
      PutComm(out, "comm", Comm(e.comm));
      o["root"] = +e.dst_root;
      o["level"] = +e.dst_level;
      o["id"] = static_cast<uint64_t>(e.dst_id);
      PutComm(out, "path", Comm(e.path));
      facts->pid = +e.pid;
      facts->comm = Comm(e.comm);
      return true;
    }
    case KELO_EVENT_FD_UPDATE: {
      kelo_fd_update_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["ts"] = static_cast<uint64_t>(e.header.ts);
      o["pid"] = +e.pid;
      o["fd"] = +e.fd;
      o["open_count"] = static_cast<uint64_t>(e.open_count);
      PutComm(out, "comm", Comm(e.comm));
      facts->pid = +e.pid;
      facts->comm = Comm(e.comm);
      return true;
    }
    case KELO_EVENT_DMABUF_UPDATE: {
      kelo_dmabuf_update_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["ts"] = static_cast<uint64_t>(e.header.ts);
      o["op"] = DmabufOp(e.op);
      o["pid"] = +e.pid;
      o["inode"] = static_cast<uint64_t>(e.inode);
      o["size"] = static_cast<int64_t>(e.size);
      o["owner"] = +e.owner_pid;
      PutComm(out, "comm", Comm(e.comm));
      facts->pid = +e.pid;
      facts->comm = Comm(e.comm);
      return true;
    }
    case KELO_CLIENT_EVENT_PROCESS_CREATE: {
      kelo_process_create_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["pid"] = +e.pid;
      o["ppid"] = +e.ppid;
      o["uid"] = +e.uid;
      PutComm(out, "comm", Comm(e.comm));
      facts->pid = +e.pid;
      facts->comm = Comm(e.comm);
      return true;
    }
    case KELO_CLIENT_EVENT_PROCESS_EXIT: {
      kelo_process_exit_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["pid"] = +e.pid;
      PutComm(out, "comm", Comm(e.comm));
      facts->pid = +e.pid;
      facts->comm = Comm(e.comm);
      facts->processExit = true;
      return true;
    }
    case KELO_CLIENT_EVENT_THREAD_COUNT: {
      kelo_thread_count_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      o["pid"] = +e.pid;
      o["ppid"] = +e.ppid;
      o["uid"] = +e.uid;
      o["old_threads"] = +e.old_thread_num;
      o["threads"] = +e.thread_num;
      facts->pid = +e.pid;
      return true;
    }
    case KELO_CLIENT_EVENT_RSS_CHANGE: {
      kelo_rss_change_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      __s64 rss[KELO_RSS_MEMBERS];
      __s64 rssOld[KELO_RSS_MEMBERS];
      memcpy(rss, e.rss, sizeof(rss));
      memcpy(rssOld, e.rss_old, sizeof(rssOld));
      o["pid"] = +e.pid;
      o["ppid"] = +e.ppid;
      o["uid"] = +e.uid;
      PutComm(out, "comm", Comm(e.comm));
      o["rss"] = RssObject(rss);
      o["rss_old"] = RssObject(rssOld);
      o["delta"] = RssDelta(e);
      facts->pid = +e.pid;
      facts->comm = Comm(e.comm);
      facts->rssDelta = RssDelta(e);
      return true;
    }
    default:
      return false;
  }
}

// Decodes `record` into the JSON object (when `out` is given) and facts.
EventFacts DecodeRecord(const char* record, size_t size, Json* out) {
  EventFacts facts;
  Json scratch = Json::object();
  Json& o = out != nullptr ? *out : scratch;
  o["record"] = "event";
  if (size < sizeof(uint32_t)) {
    o["size"] = size;
    o["bytes"] = HexBytes(record, size);
    return facts;
  }
  memcpy(&facts.type, record, sizeof(facts.type));
  facts.typed = true;
  const char* name = EventTypeName(facts.type);
  o["type"] = facts.type;
  o["name"] = name != nullptr ? name : "unknown";
  facts.decoded = Decode(facts.type, record, size, &o, &facts);
  if (!facts.decoded) {
    if (name != nullptr) o["short"] = true;
    o["size"] = size;
    o["bytes"] = HexBytes(record, size);
  }
  return facts;
}

}  // namespace

Json EventToJson(const char* record, size_t size) {
  Json object;
  DescribeEvent(record, size, &object);
  return object;
}

EventFacts DescribeEvent(const char* record, size_t size, Json* json) {
  if (json != nullptr) *json = Json::object();
  return DecodeRecord(record, size, json);
}

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

std::string CommString(const char* comm, size_t length) { return std::string(comm, strnlen(comm, length)); }

bool IsValidUtf8(const std::string& bytes) {
  for (size_t i = 0; i < bytes.size();) {
    const size_t length = Utf8SequenceLength(bytes, i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

void PutComm(Json* object, const char* key, const std::string& comm) {
  if (IsValidUtf8(comm)) {
    (*object)[key] = comm;
    return;
  }
  std::string repaired;
  for (size_t i = 0; i < comm.size();) {
    const size_t length = Utf8SequenceLength(comm, i);
    if (length == 0) {
      repaired += "\xef\xbf\xbd";  // U+FFFD
      ++i;
    } else {
      repaired.append(comm, i, length);
      i += length;
    }
  }
  (*object)[key] = repaired;
  (*object)[std::string(key) + "_hex"] = HexBytes(comm.data(), comm.size());
}

std::string HexBytes(const char* bytes, size_t size) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(size * 2);
  for (size_t i = 0; i < size; ++i) {
    const unsigned char c = static_cast<unsigned char>(bytes[i]);
    hex.push_back(DIGITS[c >> 4]);
    hex.push_back(DIGITS[c & 0xf]);
  }
  return hex;
}

std::string JsonLine(const Json& object) {
  // Every string put in by this file is valid UTF-8; replacing instead of
  // throwing only guards against a caller that put in raw bytes.
  return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace Bpf
}  // namespace Kelo
