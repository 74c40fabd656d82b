// Loads the kernel-side program sets and pins them where the service expects
// them. On a device the platform's BPF loader does this at boot; here the
// kelo_bpf_loader tool and the tests use this library instead.
//
// For each set (an object file plus its defineset name) every program is
// pinned at <dir>/prog_<defineset>_<kind>_<program> with kind "tracepoint",
// "kprobe" or "kretprobe" taken from the program's section, and every map at
// <dir>/map_<defineset>_<map>, the map's full C name. Nothing is attached:
// attaching is the service's job. A program that this kernel refuses to load
// is reported and left out; the rest of its set is still loaded and pinned.
// Pins that already exist are replaced.
#pragma once

#include <string>
#include <vector>

namespace Kelo {
namespace Bpf {

// Log tag of the loader's lines.
inline constexpr char LOG_TAG_LOADER[] = "KeloBpfLoader";

struct BpfObjectSet {
  std::string objectPath;  // a .bpf.o built by bpf/CMakeLists.txt
  std::string defineset;   // "KeloBpfDefineset" or "KeloBpfGplDefineset"
};

struct BpfLoadReport {
  std::vector<std::string> pinnedPrograms;  // full pinned paths
  std::vector<std::string> pinnedMaps;      // full pinned paths
  // "<defineset> <program>: <reason>" for each program left out.
  std::vector<std::string> failedPrograms;
  // Problems that cost a whole set or a pin: "<defineset>: <reason>".
  std::vector<std::string> errors;
};

// The normal and GPL sets as built into objectDir (kelo_bpf_normal.bpf.o,
// kelo_bpf_gpl.bpf.o).
std::vector<BpfObjectSet> DefaultBpfObjectSets(const std::string& objectDir);

// Loads and pins every set under dir, creating dir (and its parents inside
// bpffs) when missing. Returns 0 when every program and map was pinned,
// otherwise the number of entries in failedPrograms and errors together.
// report may be null.
int LoadAndPinBpfSets(const std::vector<BpfObjectSet>& sets, const std::string& dir, BpfLoadReport* report);

// The attach kind word of a program section ("tracepoint/sched/sched_switch"
// → "tracepoint"), or an empty string for a section the service cannot attach.
std::string AttachKindOfSection(const std::string& section);

}  // namespace Bpf
}  // namespace Kelo
