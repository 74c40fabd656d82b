// Attaching programs: the kernel-version rules of which rows of the attach
// tables a kernel accepts; real programs, tiny ones loaded here from raw
// instructions, pinned under the names the loader uses, attached through the
// helpers and then seen to run when the test triggers their tracepoints; and
// the attach tables against the real kernel program sets.
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "helper/kelo_bpf_helper.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait.h"

namespace Kelo {
namespace Bpf {
namespace {

using android::base::unique_fd;

TEST(KernelVersionTest, ConvertVersionToInt) {
  EXPECT_EQ(convertVersionToInt("5.10"), 5010);
  EXPECT_EQ(convertVersionToInt("6.1"), 6001);
  EXPECT_EQ(convertVersionToInt("4.19.191"), 4019);
  EXPECT_EQ(convertVersionToInt("6.18.44-fc-v669"), 6018);  // read like stoi: leading digits
  EXPECT_EQ(convertVersionToInt("5..10"), 5010);            // empty pieces are dropped
  for (const char* garbage : {"", "5", "5.", "abc", "5.x", "-1.0", " 5.10", "99999999999.1", "2147483.1000"}) {
    EXPECT_EQ(convertVersionToInt(garbage), INVALID_KERNEL_VERSION) << "\"" << garbage << "\"";
  }
}

TEST(KernelVersionTest, CheckBpfCompatibility) {
  struct {
    const char* kernel;  // "ro.kernel.version"; "" leaves it unset
    const char* rule;
    bool compatible;
  } const cases[] = {
      {"5.10", "5.0+", true},      {"4.19", "5.0+", false},      {"", "5.0+", false},
      {"6.1", "6.1+", true},       {"5.15", "6.1+", false},      {"5.10", "4.14-5.10", true},
      {"4.14", "4.14-5.10", true}, {"5.15", "4.14-5.10", false}, {"4.9", "4.14-5.10", false},
      {"4.19", "5.10-", true},     {"5.15", "5.10-", false},     {"", "5.10-", true},
      {"4.19", "4.19-", true},  // a trailing "-" is an upper bound, never a range
      {"5.4", "5.4", true},        {"5.10", "5.4", false},       {"5.40", "5.4", false},
      {"5.10.43", "5.10", true},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(android::base::SetProperty(KERNEL_VERSION_PROPERTY, c.kernel));
    EXPECT_EQ(CheckBpfCompatibility(c.rule), c.compatible) << "kernel \"" << c.kernel << "\" rule " << c.rule;
  }
}

// Rules the tables never hold and kernel versions no device reports must
// neither throw nor let a program on.
TEST(KernelVersionTest, UnreadableRulesAndKernelsAreNeverCompatible) {
  ASSERT_TRUE(android::base::SetProperty(KERNEL_VERSION_PROPERTY, "5.10"));
  kelo_test::LogCapture log;
  for (const char* rule : {"", "+", "-", "abc", "x+", "x-", "-5.10", "4.14-x", "x-5.10", "5"}) {
    EXPECT_FALSE(CheckBpfCompatibility(rule)) << "\"" << rule << "\"";
  }
  EXPECT_TRUE(log.contains("[CheckBpfCompatibility] Invalid kernel compat: x-5.10"));
  ASSERT_TRUE(android::base::SetProperty(KERNEL_VERSION_PROPERTY, "unknown"));
  EXPECT_FALSE(CheckBpfCompatibility("5.10-"));
  EXPECT_TRUE(log.contains("[CheckBpfCompatibility] Invalid kernel version: unknown"));
}

constexpr char PIN_DIR[] = "/sys/fs/bpf/kelo/";
constexpr uint32_t COUNTER_SLOTS = 4;

std::string PinnedPath(const std::string& defineset, const std::string& kind, const std::string& name) {
  return std::string(PIN_DIR) + "prog_" + defineset + "_" + kind + "_" + name;
}

bpf_insn Insn(uint8_t code, uint8_t dst, uint8_t src, int16_t off, int32_t imm) {
  bpf_insn insn{};
  insn.code = code;
  insn.dst_reg = dst;
  insn.src_reg = src;
  insn.off = off;
  insn.imm = imm;
  return insn;
}

unique_fd LoadProgram(bpf_prog_type type, const bpf_insn* insns, size_t count) {
  std::vector<char> verifierLog(65536);
  LIBBPF_OPTS(bpf_prog_load_opts, opts, .log_size = static_cast<__u32>(verifierLog.size()),
              .log_buf = verifierLog.data());
  unique_fd fd(bpf_prog_load(type, "kelo_test", "GPL", insns, count, &opts));
  EXPECT_GE(fd.get(), 0) << verifierLog.data();
  return fd;
}

// A tracepoint program that adds one to counters[slot] whenever it runs in a
// task of this process, so that activity elsewhere on the machine is ignored.
unique_fd LoadCounterProgram(int mapFd, uint32_t slot) {
  const bpf_insn insns[] = {
      Insn(BPF_JMP | BPF_CALL, 0, 0, 0, BPF_FUNC_get_current_pid_tgid),
      Insn(BPF_ALU64 | BPF_RSH | BPF_K, BPF_REG_0, 0, 0, 32),
      Insn(BPF_JMP | BPF_JNE | BPF_K, BPF_REG_0, 0, 9, getpid()),  // to "r0 = 0"
      Insn(BPF_ST | BPF_MEM | BPF_W, BPF_REG_10, 0, -4, static_cast<int32_t>(slot)),
      Insn(BPF_ALU64 | BPF_MOV | BPF_X, BPF_REG_2, BPF_REG_10, 0, 0),
      Insn(BPF_ALU64 | BPF_ADD | BPF_K, BPF_REG_2, 0, 0, -4),
      Insn(BPF_LD | BPF_DW | BPF_IMM, BPF_REG_1, BPF_PSEUDO_MAP_FD, 0, mapFd),
      Insn(0, 0, 0, 0, 0),
      Insn(BPF_JMP | BPF_CALL, 0, 0, 0, BPF_FUNC_map_lookup_elem),
      Insn(BPF_JMP | BPF_JEQ | BPF_K, BPF_REG_0, 0, 2, 0),
      Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_1, 0, 0, 1),
      Insn(BPF_STX | BPF_ATOMIC | BPF_DW, BPF_REG_0, BPF_REG_1, 0, BPF_ADD),
      Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 0),
      Insn(BPF_JMP | BPF_EXIT, 0, 0, 0, 0),
  };
  return LoadProgram(BPF_PROG_TYPE_TRACEPOINT, insns, std::size(insns));
}

unique_fd LoadEmptyProgram(bpf_prog_type type) {
  const bpf_insn insns[] = {Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 0),
                            Insn(BPF_JMP | BPF_EXIT, 0, 0, 0, 0)};
  return LoadProgram(type, insns, std::size(insns));
}

void Pin(const unique_fd& fd, const std::string& path) { ASSERT_EQ(bpf_obj_pin(fd.get(), path.c_str()), 0) << path; }

// This kernel is built without kprobes; elsewhere probe attaches may succeed.
bool KernelHasKprobes() { return access("/sys/bus/event_source/devices/kprobe/type", F_OK) == 0; }

void TouchFreshPages() {
  const size_t size = 64 * static_cast<size_t>(getpagesize());
  void* pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(pages, MAP_FAILED);
  for (size_t i = 0; i < size; i += static_cast<size_t>(getpagesize())) static_cast<volatile char*>(pages)[i] = 1;
  munmap(pages, size);
}

class AttachProgramTest : public testing::Test {
 protected:
  void SetUp() override {
    // Everything here pins and attaches for real: only inside the sandbox.
    KELO_SKIP_OUTSIDE_SANDBOX();
    KELO_SKIP_WITHOUT_BPF();
    ASSERT_EQ(mkdir(PIN_DIR, 0755), 0);
    ASSERT_TRUE(android::base::SetProperty(KERNEL_VERSION_PROPERTY, "6.18"));
    counters_.reset(bpf_map_create(BPF_MAP_TYPE_ARRAY, "kelo_counters", sizeof(uint32_t), sizeof(uint64_t),
                                   COUNTER_SLOTS, nullptr));
    ASSERT_GE(counters_.get(), 0);
  }

  void PinCounter(uint32_t slot, const std::string& path) { Pin(LoadCounterProgram(counters_.get(), slot), path); }

  uint64_t Count(uint32_t slot) {
    uint64_t value = 0;
    EXPECT_EQ(bpf_map_lookup_elem(counters_.get(), &slot, &value), 0);
    return value;
  }

  unique_fd counters_;
};

TEST_F(AttachProgramTest, RetrieveOpensPinnedObjectsReadOnly) {
  ASSERT_EQ(bpf_obj_pin(counters_.get(), (std::string(PIN_DIR) + "map_KeloBpfDefineset_counters").c_str()), 0);
  unique_fd map(RetrieveProgramFd(PIN_DIR, "map_KeloBpfDefineset_counters"));
  ASSERT_GE(map.get(), 0);
  EXPECT_EQ(fcntl(map.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  const uint32_t key = 0;
  uint64_t value = 1;
  EXPECT_EQ(bpf_map_lookup_elem(map.get(), &key, &value), 0);
  EXPECT_NE(bpf_map_update_elem(map.get(), &key, &value, BPF_ANY), 0);
  EXPECT_EQ(errno, EPERM);

  Pin(LoadEmptyProgram(BPF_PROG_TYPE_TRACEPOINT), PinnedPath(NORMAL_DEFINESET, "tracepoint", "sched_sched_switch"));
  unique_fd prog(RetrieveProgramFd(PIN_DIR, NORMAL_DEFINESET, "tracepoint", "sched_sched_switch"));
  EXPECT_GE(prog.get(), 0);
  EXPECT_EQ(RetrieveProgramFd(PIN_DIR, NORMAL_DEFINESET, "kprobe", "sched_sched_switch"), -1);
  EXPECT_EQ(errno, ENOENT);
}

// The service's own path: the normal table attaches every pinned tracepoint
// program, which then counts its own event, and the kprobe row is tried too.
TEST_F(AttachProgramTest, NormalTableAttachesTracepointsThatFire) {
  const auto& rows = NormalAttachTable().at(NORMAL_DEFINESET).at(ATTACH_KIND_TRACEPOINT);
  ASSERT_EQ(rows.size(), COUNTER_SLOTS);
  for (uint32_t slot = 0; slot < COUNTER_SLOTS; ++slot) {
    PinCounter(slot, PinnedPath(NORMAL_DEFINESET, "tracepoint", rows[slot][ATTACH_COL_PROG_NAME]));
  }
  Pin(LoadEmptyProgram(BPF_PROG_TYPE_KPROBE), PinnedPath(NORMAL_DEFINESET, "kprobe", "enter_fd_install"));
  ASSERT_EQ(rows[2][ATTACH_COL_EVENT], "sched_process_fork");
  kelo_test::RunChild();
  EXPECT_EQ(Count(2), 0u) << "counted before being attached";

  kelo_test::LogCapture log;
  EXPECT_EQ(AttachAllKeloBpfProgram(PIN_DIR, NormalAttachTable()), KernelHasKprobes() ? 0 : 1);
  EXPECT_FALSE(log.contains("Attach tracepoint prog failed"));

  for (int i = 0; i < 3; ++i) kelo_test::RunChild();
  EXPECT_GE(Count(2), 3u);  // sched_process_fork
  // Task exit runs its tracepoint after the exiting thread can already be
  // joined, so the count may land a moment after the join.
  std::thread([] {}).join();
  EXPECT_TRUE(kelo_test::WaitUntil([&] { return Count(1) > 0; }));  // sched_process_exit
  TouchFreshPages();
  EXPECT_GE(Count(3), 1u);  // kmem rss_stat
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_GE(Count(0), 1u);  // sched_switch
}

// Rows are tried in table order (sets by name, kinds ascending, rows in
// order); only attaches returning -1 count, and none stops the loop.
TEST_F(AttachProgramTest, TableLoopCountsOnlyFailedAttachesAndNeverStops) {
  Pin(LoadEmptyProgram(BPF_PROG_TYPE_KPROBE), PinnedPath(NORMAL_DEFINESET, "kprobe", "enter_fd_install"));
  Pin(LoadEmptyProgram(BPF_PROG_TYPE_KPROBE), PinnedPath(NORMAL_DEFINESET, "kretprobe", "return_fd_install"));
  PinCounter(0, PinnedPath(GPL_DEFINESET, "tracepoint", "sched_sched_process_fork"));
  const BpfAttachTable table = {
      {GPL_DEFINESET,
       {{ATTACH_KIND_TRACEPOINT, {{"sched_sched_process_fork", "sched", "sched_process_fork", "5.0+"}}}}},
      {NORMAL_DEFINESET,
       {{7, {{"unknown_kind", "sched", "sched_switch", "5.0+"}}},
        {ATTACH_KIND_KRETPROBE, {{"return_fd_install", "fd_install", "", "5.0+"}}},
        {ATTACH_KIND_KPROBE, {{"enter_fd_install", "fd_install", "", "5.0+"}}},
        {ATTACH_KIND_TRACEPOINT,
         {{"malformed", "sched", "sched_switch"},
          {"too_new", "sched", "sched_switch", "7.0+"},
          {"sched_sched_switch", "sched", "sched_switch", "5.0+"}}}}},
  };
  kelo_test::LogCapture log;
  EXPECT_EQ(AttachAllKeloBpfProgram(PIN_DIR, table), KernelHasKprobes() ? 1 : 3);
  const std::string text = log.text();
  size_t previous = 0;
  for (const char* line : {
           "Error format!: KeloBpfDefineset",
           "Skip bpf prog: KeloBpfDefineset, progName: too_new, kernelCompat: 7.0+",
           "[AttachTracepointProgram] Retrieve tracepoint prog failed: sched_sched_switch",
           "Attach tracepoint prog failed: KeloBpfDefineset, type: sched_sched_switch, msg: No such file or directory",
           "[AttachKProbeProgram] Attach kprobe prog: enter: progName: enter_fd_install, functionName: fd_install",
           "[AttachKProbeProgram] Attach kretprobe prog: return: progName: return_fd_install, functionName: fd_install",
           "(UNKNOW TYPE) attach prog failed: KeloBpfDefineset, type: unknown_kind",
           "Attach bpf prog start: KeloBpfGplDefineset, progName: sched_sched_process_fork",
       }) {
    const size_t at = text.find(line);
    ASSERT_NE(at, std::string::npos) << line;
    EXPECT_GE(at, previous) << line;
    previous = at;
  }
  EXPECT_EQ(log.contains("Attach kprobe prog failed: KeloBpfDefineset, progname: enter_fd_install"),
            !KernelHasKprobes());
  EXPECT_EQ(log.contains("Attach kretprobe prog failed: KeloBpfDefineset, progname: return_fd_install"),
            !KernelHasKprobes());
  EXPECT_EQ(log.count("Attach bpf prog start"), 5);
  kelo_test::RunChild();
  EXPECT_GE(Count(0), 1u);
}

TEST_F(AttachProgramTest, NameFallbackAndFileDrivenTracepoints) {
  PinCounter(0, std::string(PIN_DIR) + "fallback");
  PinCounter(1, std::string(PIN_DIR) + "any_file");
  // Without prog_fallback_tracepoint_..., <dir>/<defineset> is used.
  EXPECT_GE(AttachTracepointProgram(PIN_DIR, "fallback", "sched_sched_process_fork"), 0);
  EXPECT_GE(AttachTracepointProgram(PIN_DIR, "any_file", "sched", "sched_process_fork"), 0);
  kelo_test::RunChild();
  EXPECT_GE(Count(0), 1u);
  EXPECT_GE(Count(1), 1u);

  kelo_test::LogCapture log;
  EXPECT_EQ(AttachTracepointProgram(PIN_DIR, "absent", "sched_sched_switch"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(log.contains("[AttachTracepointProgram] Retrieve tracepoint prog failed: sched_sched_switch"));
  EXPECT_EQ(AttachTracepointProgram(PIN_DIR, "absent", "sched", "sched_switch"), -1);
  EXPECT_TRUE(log.contains(
      "[AttachTracepointProgram] Retrieve tracepoint prog failed, subSystem: sched, eventName: sched_switch"));
}

// Name-driven attaching of a whole directory; probe directions come from the
// name's prefix, and only the "tracepoint" and "kprobe" words are attached.
TEST_F(AttachProgramTest, DirectoryDrivenAttachesEveryPinnedProgram) {
  PinCounter(0, PinnedPath(NORMAL_DEFINESET, "tracepoint", "sched_sched_process_fork"));
  PinCounter(1, PinnedPath(GPL_DEFINESET, "tracepoint", "sched_sched_process_fork"));
  PinCounter(2, PinnedPath(NORMAL_DEFINESET, "tracepoint", "nosuch_event"));  // no such tracepoint: counted
  PinCounter(3, std::string(PIN_DIR) + "prog_short_name");                    // too few pieces: ignored
  for (const char* name : {"enter_fd_install", "return_fd_install", "exit_fd_install"}) {
    Pin(LoadEmptyProgram(BPF_PROG_TYPE_KPROBE), PinnedPath(NORMAL_DEFINESET, "kprobe", name));
  }
  Pin(LoadEmptyProgram(BPF_PROG_TYPE_KPROBE), PinnedPath(NORMAL_DEFINESET, "kretprobe", "fd_install"));  // ignored
  ASSERT_EQ(bpf_obj_pin(counters_.get(), (std::string(PIN_DIR) + "map_KeloBpfDefineset_counters").c_str()), 0);

  kelo_test::LogCapture log;
  EXPECT_EQ(AttachAllKeloBpfProgram(PIN_DIR), KernelHasKprobes() ? 2 : 4);
  for (const char* line : {
           "Attach bpf prog (prog_KeloBpfDefineset_tracepoint_sched_sched_process_fork, type: tracepoint) to "
           "sched_sched_process_fork",
           "Attach tracepoint prog failed: KeloBpfDefineset, type: nosuch_event",
           "[AttachKProbeProgram] Attach kprobe prog: enter: eventType: enter, eventName: fd_install",
           "[AttachKProbeProgram] Attach kprobe prog: return: eventType: return, eventName: fd_install",
           "[AttachKProbeProgram] (UNKNOW TYPE) kprobe prog failed: exit_fd_install, prog: KeloBpfDefineset",
           "Attach kprobe prog failed: kprobe, type: exit_fd_install, msg: Invalid argument",
           "(UNKNOW TYPE) attach prog failed: KeloBpfDefineset, type: fd_install",
       }) {
    EXPECT_TRUE(log.contains(line)) << line;
  }
  EXPECT_FALSE(log.contains("short"));
  EXPECT_FALSE(log.contains("counters"));
  kelo_test::RunChild();
  EXPECT_GE(Count(0), 1u);
  EXPECT_GE(Count(1), 1u);

  EXPECT_EQ(AttachKProbeProgram(PIN_DIR, NORMAL_DEFINESET, "enter_absent"), -1);
  EXPECT_TRUE(log.contains("[AttachKProbeProgram] Retrieve kprobe prog failed: enter_absent, prog: KeloBpfDefineset"));
  EXPECT_EQ(AttachAllKeloBpfProgram("/sys/fs/bpf/absent"), -1);
  EXPECT_EQ(errno, ENOENT);
}

// The tables against the real kernel program sets, loaded and pinned as the
// platform does: every pinned program is named by a row, and every
// tracepoint row finds its program and attaches. Rows also follow the naming
// rule the name-driven helpers rely on: <subsystem>_<event> for tracepoints,
// the probed function (behind its direction in the normal set) for probes.
TEST(AttachTablesTest, RowsMatchTheRealProgramSets) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  KELO_SKIP_WITHOUT_BPF();
  BpfLoadReport report;
  kelo_test::LoadAndPinPrograms(KELO_BPF_FS_DIR, &report);
  ASSERT_FALSE(report.pinnedPrograms.empty());

  std::set<std::string> named;
  const char* const kindWords[] = {ATTACH_KIND_WORD_TRACEPOINT, ATTACH_KIND_WORD_KPROBE, ATTACH_KIND_WORD_KRETPROBE};
  for (const BpfAttachTable* table : {&NormalAttachTable(), &GplAttachTable()}) {
    for (const auto& [defineset, kinds] : *table) {
      for (const auto& [kind, rows] : kinds) {
        for (const auto& row : rows) {
          ASSERT_EQ(row.size(), ATTACH_ROW_COLUMNS) << defineset;
          const std::string& target = row[ATTACH_COL_TARGET];
          const std::string expected = kind == ATTACH_KIND_TRACEPOINT  ? target + "_" + row[ATTACH_COL_EVENT]
                                       : defineset == NORMAL_DEFINESET ? "enter_" + target
                                                                       : target;
          EXPECT_EQ(row[ATTACH_COL_PROG_NAME], expected) << defineset << " kind " << kind;
          named.insert(std::string(KELO_BPF_FS_DIR) + "/prog_" + defineset + "_" + kindWords[kind] + "_" +
                       row[ATTACH_COL_PROG_NAME]);
        }
      }
    }
  }
  EXPECT_TRUE(NormalAttachTable().at(NORMAL_DEFINESET).at(ATTACH_KIND_KRETPROBE).empty());
  for (const std::string& pinned : report.pinnedPrograms) EXPECT_EQ(named.count(pinned), 1u) << pinned;
  EXPECT_EQ(report.pinnedPrograms.size(), named.size());

  ASSERT_TRUE(android::base::SetProperty(KERNEL_VERSION_PROPERTY, "6.18"));
  kelo_test::LogCapture log;
  // Only the probe rows may fail, and only on a kernel without kprobes.
  EXPECT_EQ(AttachAllKeloBpfProgram(PIN_DIR, NormalAttachTable()), KernelHasKprobes() ? 0 : 1);
  EXPECT_EQ(AttachAllKeloBpfProgram(PIN_DIR, GplAttachTable()), KernelHasKprobes() ? 0 : 5);
  EXPECT_EQ(log.count("Attach bpf prog start"), 12);
  EXPECT_FALSE(log.contains("tracepoint prog failed")) << log.text();
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
