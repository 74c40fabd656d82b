#include "tools/kelo_bpf_client_filter.h"

#include <android-base/file.h>
#include <fnmatch.h>

#include <utility>

namespace Kelo {
namespace Bpf {

EventFilter::EventFilter(EventFilterOptions options, std::string procRoot)
    : options(std::move(options)),
      pidSet(this->options.pids.begin(), this->options.pids.end()),
      procRoot(std::move(procRoot)) {}

bool EventFilter::active() const { return !options.pids.empty() || !options.commGlob.empty() || options.minDelta != 0; }

bool EventFilter::passes(const EventFacts& facts) {
  bool pass = true;
  if (!pidSet.empty()) pass = facts.pid && pidSet.count(*facts.pid) != 0;
  if (pass && !options.commGlob.empty()) pass = passesComm(facts);
  if (pass && options.minDelta != 0) pass = passesMinDelta(facts);
  if (facts.processExit && facts.pid) forget(*facts.pid);
  return pass;
}

bool EventFilter::passesComm(const EventFacts& facts) {
  if (!facts.pid) return false;
  const int32_t pid = *facts.pid;
  std::string name;
  if (facts.comm) {
    name = *facts.comm;
    names[pid] = name;
  } else {
    auto known = names.find(pid);
    if (known == names.end()) {
      std::string text;
      if (android::base::ReadFileToString(procRoot + "/" + std::to_string(pid) + "/comm", &text)) {
        if (!text.empty() && text.back() == '\n') text.pop_back();
      }
      known = names.emplace(pid, text).first;
    }
    name = known->second;
  }
  return !name.empty() && fnmatch(options.commGlob.c_str(), name.c_str(), 0) == 0;
}

bool EventFilter::passesMinDelta(const EventFacts& facts) {
  if (facts.rssDelta) return *facts.rssDelta >= options.minDelta;
  if (!facts.rssMember || !facts.rssSize || !facts.pid) return true;
  const int32_t member = *facts.rssMember;
  if (member < 0 || member >= 4) return true;
  auto& last = lastRss.try_emplace(*facts.pid, std::array<int64_t, 4>{}).first->second;
  const int64_t size = *facts.rssSize;
  const uint64_t delta = size >= last[member] ? static_cast<uint64_t>(size) - static_cast<uint64_t>(last[member])
                                              : static_cast<uint64_t>(last[member]) - static_cast<uint64_t>(size);
  if (delta < options.minDelta) return false;
  last[member] = size;
  return true;
}

void EventFilter::forget(int32_t pid) {
  names.erase(pid);
  lastRss.erase(pid);
}

}  // namespace Bpf
}  // namespace Kelo
