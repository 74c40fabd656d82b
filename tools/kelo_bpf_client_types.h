// Names of the event types a client can subscribe to, and the fixed places
// of the service that the client tool talks to: its socket, its signals and
// the files it writes on them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Kelo {
namespace Bpf {

// Type 50005: the service's report of events it lost
// (kelo_events_lost_client_event).
inline constexpr uint32_t CLIENT_EVENT_LOST = 50005;

// Directory of the service's dump and state files.
inline constexpr char SERVICE_FILES_DIR[] = "/data/kelolog/stability/kelobpfframework";
inline constexpr char TASK_DUMP_FILE[] = "DUMPTASK_INFO";
inline constexpr char STATE_FILE[] = "bpfservice_state.csv";

// Signals the service answers with a file.
inline constexpr int SIGNAL_STATE = 50;
inline constexpr int SIGNAL_DUMP_ALL = 51;
inline constexpr int SIGNAL_DUMP_USER = 52;
inline constexpr int SIGNAL_DUMP_SHORT = 53;
inline constexpr int SIGNAL_DUMP_SHORT_USER = 54;

inline constexpr int MAX_EVENT_TYPE_ALIASES = 2;

// One subscribable event type.
struct ClientEventTypeInfo {
  uint32_t type;
  // The name the tool prints and accepts ("fork", "rss_changed").
  const char* name;
  // Other names accepted for it: earlier names of the tool and the
  // service's counter names; null-terminated.
  const char* aliases[MAX_EVENT_TYPE_ALIASES + 1];
  // One line for --help.
  const char* description;
};

// Every type the tool knows, raw types 0 to 7 first, then the derived ones.
const std::vector<ClientEventTypeInfo>& ClientEventTypes();

// The tool's name of `type` ("fork"), or null for a type it does not know.
const char* EventTypeName(uint32_t type);

// A type given on the command line: a name, an alias or a number (decimal,
// 0 to 2^31-1; a number need not be known). Nothing for anything else.
std::optional<int> ParseEventType(const std::string& text);

// What `watch` subscribes to without types: every type above.
std::vector<int> DefaultWatchTypes();

}  // namespace Bpf
}  // namespace Kelo
