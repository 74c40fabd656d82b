// Attach helpers: turn a row of an attach table into a live attachment. They
// decide from the running kernel's version whether a row applies, open the
// pinned program read-only and attach it to a tracepoint, kprobe or kretprobe
// through BCC's libbcc_bpf. Every line goes to the platform log with tag
// "BpfUtils".
//
// Descriptors: neither the descriptor of an opened pinned program nor the
// descriptor of an attachment is ever closed. An attachment lives exactly as
// long as its descriptors, and the service never detaches, so they are kept
// open on purpose for the life of the process.
//
// Errors: the attach functions return what libbcc_bpf returns (a non-negative
// attachment descriptor, or -1) or -1 when the pinned program cannot be opened
// or its name cannot be interpreted. errno is that of the failing operation;
// the log lines written on the way do not disturb it.
//
// Stateless apart from the kernel objects created: every function may be
// called from any thread, and the two producer threads run the table-driven
// AttachAllKeloBpfProgram concurrently, each with its own table.
#pragma once

#include <string>

#include "helper/kelo_bpf_attach_tables.h"

namespace Kelo {
namespace Bpf {

// Property naming the running kernel as "major.minor"; "0.0" when unset.
inline constexpr char KERNEL_VERSION_PROPERTY[] = "ro.kernel.version";
inline constexpr char KERNEL_VERSION_DEFAULT[] = "0.0";

// What convertVersionToInt returns for a string it cannot read.
inline constexpr int INVALID_KERNEL_VERSION = -1;

// "major.minor[.more]" -> major * 1000 + minor; pieces after the second are
// ignored ("4.19.191" -> 4019). Empty pieces are dropped before counting, and
// each piece is read like stoi: leading decimal digits, the rest ignored.
// INVALID_KERNEL_VERSION when there are fewer than two pieces, a piece does
// not begin with a digit, or the result does not fit an int. Never throws.
int convertVersionToInt(const std::string& version);

// True when the running kernel (KERNEL_VERSION_PROPERTY, read afresh on every
// call) satisfies the rule: "A.B+" at least, "A.B-" at most, "A.B-C.D" the
// inclusive range, "A.B" exactly. A trailing "-" always means an upper bound.
// A rule or kernel version that cannot be read makes the row incompatible
// (logged), so a malformed rule never attaches anything; a missing property
// reads as 0.0, which satisfies only upper bounds.
bool CheckBpfCompatibility(const std::string& kernelCompat);

// True when name begins with "prog_".
bool IsBpfProg(std::string& name);

// Opens the pinned object <dir>/<name> read-only; descriptor or -1 (errno).
int RetrieveProgramFd(const std::string& dir, const std::string& name);

// Opens the pinned program <dir>/prog_<defineset>_<kind>_<progName> read-only.
// The service passes a dir ending in "/", so the path holds "//"; harmless.
int RetrieveProgramFd(const std::string& dir, const std::string& defineset, const std::string& kind,
                      const std::string& progName);

// Table-driven: attaches prog_<defineset>_tracepoint_<progName> to
// subSystem:eventName.
int AttachTracepointProgram(const std::string& dir, const std::string& defineset, const std::string& progName,
                            const std::string& subSystem, const std::string& eventName);

// Name-driven: attaches prog_<defineset>_tracepoint_<progName> (or, failing
// that, <dir>/<defineset>) to the tracepoint named by progName, split at its
// first "_" into subsystem and event ("sched_sched_switch" ->
// sched:sched_switch; without "_" both are progName).
int AttachTracepointProgram(const std::string& dir, const std::string& defineset, const std::string& progName);

// By file name: attaches <dir>/<fileName> to subSystem:eventName.
int AttachTracepointProgram(const std::string& dir, const std::string& fileName, const std::string& subSystem,
                            const std::string& eventName);

// Table-driven: attaches prog_<defineset>_kprobe_<progName> (isEnter) or
// prog_<defineset>_kretprobe_<progName> to functionName's entry or return,
// under the probe event name <progName>_kelobpf.
int AttachKProbeProgram(const std::string& dir, const std::string& defineset, const std::string& progName,
                        const std::string& functionName, bool isEnter);

// Name-driven: opens prog_<defineset>_kprobe_<progName> and splits progName at
// its first "_" into a direction and a function: a direction containing
// "enter" gives an entry probe, one containing "return" a return probe,
// anything else is refused (-1, errno EINVAL).
int AttachKProbeProgram(const std::string& dir, const std::string& defineset, const std::string& progName);

// Attaches every row of table in table order: definesets by name, kinds
// ascending, rows in order. Rows that are malformed (not four strings), of an
// unknown kind, or not meant for the running kernel are logged and skipped
// without counting; every attach that returns -1 counts one failure and the
// loop always goes on. Returns the number of failures.
int AttachAllKeloBpfProgram(const std::string& dir, const BpfAttachTable& table);

// Attaches every pinned program of dir whose file name reads
// prog_<defineset>_<kind>_<progName>, in directory listing order, through the
// name-driven helpers. Kinds other than "kprobe" and "tracepoint" are logged
// and not counted; a failure with errno EEXIST (already attached) is not
// counted either. Returns the number of failures, or -1 (errno set) when dir
// cannot be listed.
int AttachAllKeloBpfProgram(const std::string& dir);

}  // namespace Bpf
}  // namespace Kelo
