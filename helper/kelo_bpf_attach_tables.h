// The attach tables: which pinned programs the service attaches, to which
// kernel hook, and on which kernels. They are fixed at build time and are the
// vocabulary that ties this library to the objects pinned under the program
// directory by the platform's loader.
//
// Shape: defineset name -> attach kind -> rows, every row four strings:
//   [ATTACH_COL_PROG_NAME]   last part of the pinned name
//                            prog_<defineset>_<kind word>_<program name>;
//                            for probes also the base of the probe event name
//   [ATTACH_COL_TARGET]      tracepoint subsystem, or the kernel function probed
//   [ATTACH_COL_EVENT]       tracepoint event name ("" for probes)
//   [ATTACH_COL_KERNEL_COMPAT] kernel rule, see CheckBpfCompatibility
//
// Naming rule to keep when rows are added: a tracepoint program is named
// <subsystem>_<event>; a kprobe program of the normal set carries its direction
// as a prefix ("enter_fd_install" probes fd_install); the GPL set's probe
// programs are named exactly like the probed function.
//
// Iteration order is part of the contract: definesets by name, kinds
// ascending (all tracepoints of a set before its kprobes, those before its
// kretprobes), rows in the order listed.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace Kelo {
namespace Bpf {

using BpfAttachTable = std::map<std::string, std::map<int, std::vector<std::vector<std::string>>>>;

// Attach kinds (inner keys). Any other value is refused at attach time.
inline constexpr int ATTACH_KIND_TRACEPOINT = 0;
inline constexpr int ATTACH_KIND_KPROBE = 1;     // function entry
inline constexpr int ATTACH_KIND_KRETPROBE = 2;  // function return

// The word each kind contributes to a pinned program's name.
inline constexpr char ATTACH_KIND_WORD_TRACEPOINT[] = "tracepoint";
inline constexpr char ATTACH_KIND_WORD_KPROBE[] = "kprobe";
inline constexpr char ATTACH_KIND_WORD_KRETPROBE[] = "kretprobe";

// Row layout.
inline constexpr size_t ATTACH_ROW_COLUMNS = 4;
inline constexpr size_t ATTACH_COL_PROG_NAME = 0;
inline constexpr size_t ATTACH_COL_TARGET = 1;
inline constexpr size_t ATTACH_COL_EVENT = 2;
inline constexpr size_t ATTACH_COL_KERNEL_COMPAT = 3;

// Set names: the second word of every pinned program and map of the set.
inline constexpr char NORMAL_DEFINESET[] = "KeloBpfDefineset";
inline constexpr char GPL_DEFINESET[] = "KeloBpfGplDefineset";

// The normal program set, attached by the normal producer thread. Its
// kretprobe kind is present and empty.
const BpfAttachTable& NormalAttachTable();

// The GPL program set, attached by the GPL producer thread. It pins its own
// sched_process_exit program on purpose, beside the normal set's.
const BpfAttachTable& GplAttachTable();

}  // namespace Bpf
}  // namespace Kelo
