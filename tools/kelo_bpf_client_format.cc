#include "tools/kelo_bpf_client_format.h"

#include <cinttypes>
#include <cstring>

#include "bpf/kelo_bpf_events.h"
#include "helper/kelo_bpf_helper_strings.h"
#include "tools/kelo_bpf_client_record.h"

namespace Kelo {
namespace Bpf {
namespace {

// Writes the fields as " key=value": task names as one word (\xNN for blanks
// and unprintable bytes, so that the line stays splittable on blanks),
// enumerations by name or as "unknown(<number>)".
class TextFields : public RecordFieldVisitor {
 public:
  explicit TextFields(std::string* line) : line(*line) {}

  void Signed(const char* key, int64_t value) override { Put(key, StringPrintf("%" PRId64, value)); }
  void Unsigned(const char* key, uint64_t value) override { Put(key, StringPrintf("%" PRIu64, value)); }
  void Named(const char* key, const char* name, int64_t number) override {
    Put(key, name != nullptr ? std::string(name) : StringPrintf("unknown(%" PRId64 ")", number));
  }
  void Text(const char* key, const std::string& bytes, bool path) override {
    Put(key, path ? bytes : EscapedComm(bytes, true));
  }
  void BeginGroup(const char*, const char* textPrefix) override { prefix = textPrefix; }
  void EndGroup() override { prefix.clear(); }

 private:
  void Put(const char* key, const std::string& value) { line += " " + prefix + key + "=" + value; }

  std::string& line;
  std::string prefix;
};

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
  const char* name = nullptr;
  std::string line;
  TextFields fields(&line);
  const EventFacts facts = DecodeRecord(record, size, &fields);
  if (facts.typed) name = ClientEventTypeName(facts.type);
  if (facts.decoded && name != nullptr) return name + line;
  std::string dump = ConvertToHexString(record, static_cast<int>(size));
  // Every byte of the dump ends with a blank, the last one included.
  if (!dump.empty()) dump.pop_back();
  if (!facts.typed) return StringPrintf("unknown size=%zu bytes=%s", size, dump.c_str());
  if (name != nullptr) return StringPrintf("%s short record size=%zu bytes=%s", name, size, dump.c_str());
  return StringPrintf("unknown type=%u size=%zu bytes=%s", facts.type, size, dump.c_str());
}

}  // namespace Bpf
}  // namespace Kelo
