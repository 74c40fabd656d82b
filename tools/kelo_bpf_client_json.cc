#include "tools/kelo_bpf_client_json.h"

#include <cstring>

#include "bpf/kelo_bpf_events.h"
#include "tools/kelo_bpf_client_types.h"

namespace Kelo {
namespace Bpf {
namespace {

// Puts the fields into a JSON object: enumerations by name or as the number,
// names through PutComm, each group as an object of its own.
class JsonFields : public RecordFieldVisitor {
 public:
  explicit JsonFields(Json* object) : root(*object), current(object) {}

  void Signed(const char* key, int64_t value) override { (*current)[key] = value; }
  void Unsigned(const char* key, uint64_t value) override { (*current)[key] = value; }
  void Named(const char* key, const char* name, int64_t number) override {
    if (name != nullptr) {
      (*current)[key] = name;
    } else {
      (*current)[key] = number;
    }
  }
  void Text(const char* key, const std::string& bytes, bool) override { PutComm(current, key, bytes); }
  void BeginGroup(const char* key, const char*) override { current = &(root[key] = Json::object()); }
  void EndGroup() override { current = &root; }

 private:
  Json& root;
  Json* current;
};

}  // namespace

Json EventToJson(const char* record, size_t size) {
  Json object;
  DescribeEvent(record, size, &object);
  return object;
}

EventFacts DescribeEvent(const char* record, size_t size, Json* json) {
  Json scratch;
  Json& o = json != nullptr ? *json : scratch;
  o = Json::object();
  o["record"] = "event";
  if (size < sizeof(uint32_t)) {
    o["size"] = size;
    o["bytes"] = HexBytes(record, size);
    return DecodeRecord(record, size, nullptr);
  }
  uint32_t type = 0;
  memcpy(&type, record, sizeof(type));
  const char* name = EventTypeName(type);
  o["type"] = type;
  o["name"] = name != nullptr ? name : "unknown";
  JsonFields fields(&o);
  const EventFacts facts = DecodeRecord(record, size, json != nullptr ? &fields : nullptr);
  if (facts.rssDelta) o["delta"] = *facts.rssDelta;
  if (!facts.decoded) {
    if (name != nullptr) o["short"] = true;
    o["size"] = size;
    o["bytes"] = HexBytes(record, size);
  }
  return facts;
}

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
