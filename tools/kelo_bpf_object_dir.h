// Where the tools find the kernel program sets when no directory is given.
// Needs the definitions of the kelo_bpf_objects target (bpf/CMakeLists.txt).
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace Kelo {
namespace Bpf {

// True when dir holds the normal program set.
inline bool HasBpfObjects(const std::string& dir) {
  struct stat st;
  return stat((dir + "/kelo_bpf_normal.bpf.o").c_str(), &st) == 0;
}

// The first directory that holds the program sets, in this order:
//  1. the install tree of the running tool: <its directory>/../share/kelobpf,
//     wherever the tree was installed or moved to;
//  2. the build tree the tool was built in;
//  3. the configured install directory (<prefix>/share/kelobpf).
// When none holds them, the last, so that the error names the usual place.
inline std::string DefaultBpfObjectDir() {
  char exe[4096];
  const ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  if (length > 0) {
    std::string dir(exe, static_cast<size_t>(length));
    dir.erase(dir.rfind('/') + 1);
    dir += KELO_BPF_INSTALL_RELATIVE_DIR;
    if (HasBpfObjects(dir)) return dir;
  }
  if (HasBpfObjects(KELO_BPF_OBJ_DIR)) return KELO_BPF_OBJ_DIR;
  return KELO_BPF_INSTALL_DIR;
}

}  // namespace Bpf
}  // namespace Kelo
