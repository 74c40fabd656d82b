#include "tools/kelo_bpf_client_format.h"

#include <cinttypes>
#include <cstring>

#include "bpf/kelo_bpf_events.h"
#include "helper/kelo_bpf_helper_strings.h"

namespace Kelo {
namespace Bpf {
namespace {

// Records arrive at any alignment: each is copied out whole before a field is
// read.
template <typename Record>
bool CopyRecord(const char* bytes, size_t size, Record* record) {
  if (size < sizeof(Record)) return false;
  memcpy(record, bytes, sizeof(Record));
  return true;
}

// A kernel task name (not necessarily NUL-terminated) as one word: blanks and
// unprintable bytes are written as \xNN so that the key=value line stays
// splittable on blanks.
std::string Comm(const char (&comm)[KELO_COMM_LEN]) {
  std::string out;
  for (size_t i = 0; i < KELO_COMM_LEN && comm[i] != '\0'; ++i) {
    const unsigned char c = static_cast<unsigned char>(comm[i]);
    if (c > ' ' && c < 0x7f) {
      out.push_back(static_cast<char>(c));
    } else {
      out += StringPrintf("\\x%02x", c);
    }
  }
  return out;
}

// The cgroup path is NUL-terminated by the kernel side; the bound only guards
// against a damaged record.
std::string Path(const char (&path)[KELO_CGROUP_PATH_LEN]) {
  return std::string(path, strnlen(path, KELO_CGROUP_PATH_LEN));
}

std::string Kind(uint32_t kind) {
  switch (kind) {
    case KELO_TASK_KIND_PROCESS:
      return "process";
    case KELO_TASK_KIND_THREAD:
      return "thread";
    default:
      return StringPrintf("unknown(%u)", kind);
  }
}

std::string RssMember(int32_t member) {
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
      return StringPrintf("unknown(%d)", member);
  }
}

std::string DmabufOp(uint32_t op) {
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
      return StringPrintf("unknown(%u)", op);
  }
}

std::string LossSite(uint32_t site) {
  switch (site) {
    case KELO_LOSS_SITE_KERNEL:
      return "kernel";
    case KELO_LOSS_SITE_QUEUE:
      return "queue";
    default:
      return StringPrintf("unknown(%u)", site);
  }
}

uint64_t Ts(const kelo_event_header& header) { return static_cast<uint64_t>(header.ts); }

// The four rss figures, file, anon, swap, shmem, as "<prefix>file=.. ...".
std::string RssFigures(const char* prefix, const __s64 (&rss)[KELO_RSS_MEMBERS]) {
  return StringPrintf("%sfile=%" PRId64 " %sanon=%" PRId64 " %sswap=%" PRId64 " %sshmem=%" PRId64, prefix,
                      static_cast<int64_t>(rss[KELO_RSS_FILE]), prefix, static_cast<int64_t>(rss[KELO_RSS_ANON]),
                      prefix, static_cast<int64_t>(rss[KELO_RSS_SWAP]), prefix,
                      static_cast<int64_t>(rss[KELO_RSS_SHMEM]));
}

bool FormatKnown(uint32_t type, const char* bytes, size_t size, std::string* line) {
  const char* name = ClientEventTypeName(type);
  switch (type) {
    case KELO_EVENT_TASK_INIT: {
      kelo_task_init_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s ts=%" PRIu64 " pid=%d ppid=%d uid=%u threads=%d comm=%s rss_file=%" PRId64
                           " rss_anon=%" PRId64 " rss_shmem=%" PRId64 " rss_swap=%" PRId64 " init_time=%" PRId64,
                           name, Ts(e.header), e.pid, e.ppid, e.uid, e.thread_num, Comm(e.comm).c_str(),
                           static_cast<int64_t>(e.rss_file), static_cast<int64_t>(e.rss_anon),
                           static_cast<int64_t>(e.rss_shmem), static_cast<int64_t>(e.rss_swap),
                           static_cast<int64_t>(e.init_time));
      return true;
    }
    case KELO_EVENT_RSS_STAT: {
      kelo_rss_stat_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s ts=%" PRIu64 " pid=%d member=%s size=%" PRId64, name, Ts(e.header), e.pid,
                           RssMember(e.member).c_str(), static_cast<int64_t>(e.size));
      return true;
    }
    case KELO_EVENT_TASK_CREATE: {
      kelo_task_create_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s ts=%" PRIu64 " pid=%d ppid=%d uid=%u comm=%s kind=%s", name, Ts(e.header), e.pid, e.ppid,
                           e.uid, Comm(e.comm).c_str(), Kind(e.kind).c_str());
      return true;
    }
    case KELO_EVENT_TASK_EXIT: {
      kelo_task_exit_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s ts=%" PRIu64 " pid=%d comm=%s kind=%s", name, Ts(e.header), e.pid, Comm(e.comm).c_str(),
                           Kind(e.kind).c_str());
      return true;
    }
    case KELO_EVENT_DMABUF_SIZE: {
      kelo_dmabuf_size_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s ts=%" PRIu64 " pid=%d allocated=%" PRId64 " referenced=%" PRId64, name, Ts(e.header),
                           e.pid, static_cast<int64_t>(e.allocated_size), static_cast<int64_t>(e.referenced_size));
      return true;
    }
    case KELO_EVENT_CGROUP_ATTACH: {
      kelo_cgroup_attach_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s ts=%" PRIu64 " pid=%d comm=%s root=%d level=%d id=%" PRIu64 " path=%s", name,
                           Ts(e.header), e.pid, Comm(e.comm).c_str(), e.dst_root, e.dst_level,
                           static_cast<uint64_t>(e.dst_id), Path(e.path).c_str());
      return true;
    }
    case KELO_EVENT_FD_UPDATE: {
      kelo_fd_update_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s ts=%" PRIu64 " pid=%d fd=%d open_count=%" PRIu64 " comm=%s", name, Ts(e.header), e.pid,
                           e.fd, static_cast<uint64_t>(e.open_count), Comm(e.comm).c_str());
      return true;
    }
    case KELO_EVENT_DMABUF_UPDATE: {
      kelo_dmabuf_update_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s ts=%" PRIu64 " op=%s pid=%d inode=%" PRIu64 " size=%" PRId64 " owner=%d comm=%s", name,
                           Ts(e.header), DmabufOp(e.op).c_str(), e.pid, static_cast<uint64_t>(e.inode),
                           static_cast<int64_t>(e.size), e.owner_pid, Comm(e.comm).c_str());
      return true;
    }
    case KELO_CLIENT_EVENT_PROCESS_CREATE: {
      kelo_process_create_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s pid=%d ppid=%d uid=%u comm=%s", name, e.pid, e.ppid, e.uid, Comm(e.comm).c_str());
      return true;
    }
    case KELO_CLIENT_EVENT_PROCESS_EXIT: {
      kelo_process_exit_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s pid=%d comm=%s", name, e.pid, Comm(e.comm).c_str());
      return true;
    }
    case KELO_CLIENT_EVENT_THREAD_COUNT: {
      kelo_thread_count_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s pid=%d ppid=%d uid=%u old_threads=%d threads=%d", name, e.pid, e.ppid, e.uid,
                           e.old_thread_num, e.thread_num);
      return true;
    }
    case KELO_CLIENT_EVENT_RSS_CHANGE: {
      kelo_rss_change_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      // Copied out of the packed struct before their addresses are taken.
      __s64 rss[KELO_RSS_MEMBERS];
      __s64 rssOld[KELO_RSS_MEMBERS];
      memcpy(rss, e.rss, sizeof(rss));
      memcpy(rssOld, e.rss_old, sizeof(rssOld));
      *line = StringPrintf("%s pid=%d ppid=%d uid=%u comm=%s %s %s", name, e.pid, e.ppid, e.uid, Comm(e.comm).c_str(),
                           RssFigures("", rss).c_str(), RssFigures("old_", rssOld).c_str());
      return true;
    }
    case KELO_CLIENT_EVENT_EVENTS_LOST: {
      kelo_events_lost_client_event e;
      if (!CopyRecord(bytes, size, &e)) return false;
      *line = StringPrintf("%s lost_type=%d site=%s count=%" PRIu64 " first_ts=%" PRIu64 " last_ts=%" PRIu64, name,
                           e.lost_type, LossSite(e.site).c_str(), static_cast<uint64_t>(e.count),
                           static_cast<uint64_t>(e.first_ts), static_cast<uint64_t>(e.last_ts));
      return true;
    }
    default:
      return false;
  }
}

}  // namespace

const char* ClientEventTypeName(uint32_t type) {
  switch (type) {
    case KELO_EVENT_TASK_INIT:
      return "task_init";
    case KELO_EVENT_RSS_STAT:
      return "rss_stat";
    case KELO_EVENT_TASK_CREATE:
      return "fork";
    case KELO_EVENT_TASK_EXIT:
      return "exit";
    case KELO_EVENT_DMABUF_SIZE:
      return "dmabuf_size";
    case KELO_EVENT_CGROUP_ATTACH:
      return "cgroup_attach";
    case KELO_EVENT_FD_UPDATE:
      return "fd_update";
    case KELO_EVENT_DMABUF_UPDATE:
      return "dmabuf_update";
    case KELO_CLIENT_EVENT_PROCESS_CREATE:
      return "process_create";
    case KELO_CLIENT_EVENT_PROCESS_EXIT:
      return "process_exit";
    case KELO_CLIENT_EVENT_THREAD_COUNT:
      return "thread_count";
    case KELO_CLIENT_EVENT_RSS_CHANGE:
      return "rss_change";
    case KELO_CLIENT_EVENT_EVENTS_LOST:
      return "lost";
    default:
      return nullptr;
  }
}

bool ClientEventType(const char* record, size_t size, uint32_t* type) {
  if (size < sizeof(*type)) return false;
  memcpy(type, record, sizeof(*type));
  return true;
}

std::string FormatClientEvent(const char* record, size_t size) {
  uint32_t type = 0;
  const bool typed = ClientEventType(record, size, &type);
  std::string line;
  if (typed && FormatKnown(type, record, size, &line)) return line;
  std::string dump = ConvertToHexString(record, static_cast<int>(size));
  // Every byte of the dump ends with a blank, the last one included.
  if (!dump.empty()) dump.pop_back();
  const char* name = typed ? ClientEventTypeName(type) : nullptr;
  if (!typed) return StringPrintf("unknown size=%zu bytes=%s", size, dump.c_str());
  if (name != nullptr) return StringPrintf("%s short record size=%zu bytes=%s", name, size, dump.c_str());
  return StringPrintf("unknown type=%u size=%zu bytes=%s", type, size, dump.c_str());
}

}  // namespace Bpf
}  // namespace Kelo
