// Opening pinned programs.
#include <linux/bpf.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "helper/kelo_bpf_helper_attach.h"
#include "helper/kelo_bpf_helper_strings.h"

namespace Kelo {
namespace Bpf {

namespace {

constexpr char BPF_PROG_PREFIX[] = "prog_";
constexpr char PINNED_PROG_PATH_FORMAT[] = "%s/prog_%s_%s_%s";

// The BPF_OBJ_GET attribute block as the kernel reads it: 152 zero-filled
// bytes holding the path pointer (64-bit), the descriptor field (0: the
// path is absolute or relative to the working directory) and the file flags.
constexpr size_t OBJ_GET_ATTR_SIZE = 152;
constexpr size_t OBJ_GET_PATHNAME_OFFSET = 0;
constexpr size_t OBJ_GET_BPF_FD_OFFSET = 8;
constexpr size_t OBJ_GET_FILE_FLAGS_OFFSET = 12;
static_assert(offsetof(union bpf_attr, pathname) == OBJ_GET_PATHNAME_OFFSET, "bpf_attr layout");
static_assert(offsetof(union bpf_attr, bpf_fd) == OBJ_GET_BPF_FD_OFFSET, "bpf_attr layout");
static_assert(offsetof(union bpf_attr, file_flags) == OBJ_GET_FILE_FLAGS_OFFSET, "bpf_attr layout");

// Opens the pinned object at path read-only. The descriptor is handed to the
// caller and deliberately never closed: a program's attachments must outlive
// every caller for the whole life of the process.
int ObjGetReadOnly(const std::string& path) {
  uint8_t attr[OBJ_GET_ATTR_SIZE] = {};
  // The kernel reads the pointer as a 64-bit field on 32-bit targets too.
  const uint64_t pathname = reinterpret_cast<uintptr_t>(path.c_str());
  const uint32_t bpfFd = 0;
  const uint32_t fileFlags = BPF_F_RDONLY;
  memcpy(attr + OBJ_GET_PATHNAME_OFFSET, &pathname, sizeof(pathname));
  memcpy(attr + OBJ_GET_BPF_FD_OFFSET, &bpfFd, sizeof(bpfFd));
  memcpy(attr + OBJ_GET_FILE_FLAGS_OFFSET, &fileFlags, sizeof(fileFlags));
  // Descriptors made by the bpf system call are always close-on-exec.
  return static_cast<int>(syscall(__NR_bpf, BPF_OBJ_GET, attr, sizeof(attr)));
}

}  // namespace

bool IsBpfProg(std::string& name) {
  return name.size() >= sizeof(BPF_PROG_PREFIX) - 1 &&
         name.compare(0, sizeof(BPF_PROG_PREFIX) - 1, BPF_PROG_PREFIX) == 0;
}

int RetrieveProgramFd(const std::string& dir, const std::string& name) { return ObjGetReadOnly(dir + "/" + name); }

int RetrieveProgramFd(const std::string& dir, const std::string& defineset, const std::string& kind,
                      const std::string& progName) {
  return ObjGetReadOnly(
      StringPrintf(PINNED_PROG_PATH_FORMAT, dir.c_str(), defineset.c_str(), kind.c_str(), progName.c_str()));
}

}  // namespace Bpf
}  // namespace Kelo
