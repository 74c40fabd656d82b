// Seeding of the kernel's tracking maps from procfs. The kernel programs only
// see what happens after they are attached; these scans give their pinned
// maps the device's state at that moment:
//  - initDmabufBpfProg (on "BpfServicePGpl", between the GPL pump's core and
//    normal enable steps): every dma-buf held through a descriptor, with its
//    size and holder, and each holder's total;
//  - initFdBpfProg (exported, not called by the service): each process's
//    count of open descriptors.
//
// Sizes are parsed as 64-bit values throughout, so buffers above 2 GiB are
// seeded exactly on the 32-bit target as well. Numbers are parsed without
// exceptions: a missing or non-numeric value counts as absent, and nothing a
// procfs file contains can end the service.
#include "service/kelo_bpf_service_seed.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "helper/kelo_bpf_helper_strings.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_service_procfs.h"
#include "utils/kelo_bpf_log.h"
#include "utils/kelo_bpf_time.h"

namespace Kelo {
namespace Bpf {
namespace {

// Maps written here; paths in the platform's directory (see pinnedPath).
constexpr char DMABUF_ALLOCATE_MAP_PATH[] = KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "dmabuf_allocate_map");
constexpr char DMABUF_SIZE_MAP_PATH[] = KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "dmabuf_size_map");
constexpr char DMABUF_PERPROCESS_SIZE_MAP_PATH[] =
    KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "dmabuf_perprocess_size_map");
constexpr char OPEN_FD_CALLER_MAP_PATH[] = KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "open_fd_caller_map");

using DirPtr = std::unique_ptr<DIR, int (*)(DIR*)>;

DirPtr OpenDir(const std::string& path) { return DirPtr(opendir(path.c_str()), closedir); }

// Keeps errno as it was around the number conversions.
class ErrnoRestorer {
 public:
  ErrnoRestorer() : saved(errno) {}
  ~ErrnoRestorer() { errno = saved; }

 private:
  int saved;
};

// The decimal number at the start of text (see ParseDecimal); false when
// there is none or it does not fit in 64 bits.
bool ParseSigned(const char* text, int64_t* out) {
  const std::optional<int64_t> value = ParseDecimal(text);
  if (!value) return false;
  *out = *value;
  return true;
}

// As ParseSigned, but without a minus sign (which strtoull would wrap).
bool ParseUnsigned(const char* text, uint64_t* out) {
  while (isspace(static_cast<unsigned char>(*text))) ++text;
  if (*text == '-') return false;
  ErrnoRestorer keep;
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(text, &end, 10);
  if (end == text || errno == ERANGE) return false;
  *out = value;
  return true;
}

bool ParseHex(const std::string& text, uint64_t* out) {
  ErrnoRestorer keep;
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(text.c_str(), &end, 16);
  if (end == text.c_str() || errno == ERANGE) return false;
  *out = value;
  return true;
}

// A /proc entry name that is a process id.
bool ParsePid(std::string& name, int* pid) {
  int64_t value = 0;
  if (!IsDigits(name) || !ParseSigned(name.c_str(), &value) || value > INT_MAX) return false;
  *pid = static_cast<int>(value);
  return true;
}

// The figures of one fdinfo file; 0 for a line that is absent or does not
// hold a number.
struct FdinfoFigures {
  int64_t size = 0;
  uint64_t inode = 0;
};

// The text after prefix in line, null when line lacks it. The kernel's lines
// start with their prefix; for a line that has it further on, the value is
// still the text after it rather than the line's characters at the prefix's
// length.
const char* ValueAfter(const std::string& line, const char* prefix, bool* found) {
  const size_t at = line.find(prefix);
  if (at == std::string::npos) return nullptr;
  *found = true;
  return line.c_str() + at + strlen(prefix);
}

// Reads "size:\t" and "ino:\t" of an fdinfo file in one pass, each from the
// first line that contains its prefix. False (with the warning "Unable to
// open %s") when the file cannot be opened.
bool ReadFdinfo(const std::string& path, FdinfoFigures* figures) {
  std::ifstream file(path);
  if (!file.is_open()) {
    KELO_LOGW(LOG_TAG_SERVICE, "Unable to open %s", path.c_str());
    return false;
  }
  bool haveSize = false;
  bool haveInode = false;
  std::string line;
  while ((!haveSize || !haveInode) && std::getline(file, line)) {
    if (!haveSize) {
      const char* value = ValueAfter(line, KeloBpfService::TASK_DMABUF_SIZE_PREFIX, &haveSize);
      if (value != nullptr && !ParseSigned(value, &figures->size)) figures->size = 0;
    }
    if (!haveInode) {
      const char* value = ValueAfter(line, KeloBpfService::TASK_DMABUF_INO_PREFIX, &haveInode);
      if (value != nullptr && !ParseUnsigned(value, &figures->inode)) figures->inode = 0;
    }
  }
  return true;
}

// Calls visit(pid, name) for each process directory of /proc, name being
// the directory's name; logs when /proc cannot be opened.
void ForEachProcess(const std::function<void(int pid, const std::string& name)>& visit) {
  DirPtr proc = OpenDir(KeloBpfService::PROC_FS_PATH);
  if (!proc) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][INIT] open %s failed! %s", KeloBpfService::PROC_FS_PATH,
              strerror(errno));
  }
  while (proc) {
    const dirent* entry = readdir(proc.get());
    if (entry == nullptr) break;
    std::string name = entry->d_name;
    int pid = 0;
    if (ParsePid(name, &pid)) visit(pid, name);
  }
}

bool UpdateElem(int mapFd, const void* key, const void* value) {
  return bpf_map_update_elem(mapFd, key, value, BPF_ANY) == 0;
}

}  // namespace

bool ParseDmabufMapsLine(const std::string& line, DmabufMapping* out) {
  const std::vector<std::string> fields = Split(line, " ");
  if (fields.size() != 6 || fields[5].find(KeloBpfService::TASK_DMABUF_PREFIX) == std::string::npos) return false;
  const std::vector<std::string> range = Split(fields[0], "-");
  if (range.size() != 2) return false;
  uint64_t start = 0;
  uint64_t inode = 0;
  // The address is read unsigned, so that only its low 32 bits are kept even
  // for an address with the top bit set; a field that is not a number counts
  // as 0, as strtoull gives it.
  ParseHex(range[0], &start);
  ParseUnsigned(fields[4].c_str(), &inode);
  out->start = static_cast<uint32_t>(start);
  out->inode = static_cast<uint32_t>(inode);
  return true;
}

long KeloBpfService::GetFdSize(const std::string& fdinfoPath) {
  FdinfoFigures figures;
  if (!ReadFdinfo(fdinfoPath, &figures)) return 0;
  // long has 32 bits on the target: a buffer of 2 GiB or more does not fit
  // and is reported as the largest (or smallest) long. The seeding itself
  // reads sizes as 64-bit values and is not affected.
  if (figures.size > static_cast<int64_t>(LONG_MAX) || figures.size < static_cast<int64_t>(LONG_MIN)) {
    const long saturated = figures.size > 0 ? LONG_MAX : LONG_MIN;
    KELO_LOGW(LOG_TAG_SERVICE, "[KeloBpfService][GetFdSize] size %" PRId64 " of %s does not fit, reported as %ld",
              figures.size, fdinfoPath.c_str(), saturated);
    return saturated;
  }
  return static_cast<long>(figures.size);
}

unsigned long long KeloBpfService::GetFdInode(const std::string& fdinfoPath) {
  FdinfoFigures figures;
  if (!ReadFdinfo(fdinfoPath, &figures)) return 0;
  return figures.inode;
}

int KeloBpfService::initDmabufBpfProg() {
  auto clearScratch = [this] {
    dmabufProcessInodes.clear();
    dmabufInodeStats.clear();
    dmabufProcessStats.clear();
    dmabufProcessMmaps.clear();
  };
  clearScratch();

  // Every map is opened before the scan, so that a missing one leaves all of
  // them untouched.
  struct PinnedMap {
    const char* path;
    const char* name;  // as the failure names it
  };
  static constexpr PinnedMap MAPS[] = {
      {DMABUF_ALLOCATE_MAP_PATH, "dmabufAllocateMap"},
      {DMABUF_SIZE_MAP_PATH, "dmabufSizeMap"},
      {DMABUF_PERPROCESS_SIZE_MAP_PATH, "dmabufPerprocessSizeMap"},
      {DMABUF_BPF_PROCESS_INODE_MAP_PATH, "processInodeMap"},
      {DMABUF_BPF_PROCESS_MMAP_INFOS_PATH, "processMmapInfos"},
  };
  android::base::unique_fd mapFds[std::size(MAPS)];
  for (size_t i = 0; i < std::size(MAPS); ++i) {
    mapFds[i].reset(bpf_obj_get(pinnedPath(MAPS[i].path).c_str()));
    if (mapFds[i].get() < 0) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][INIT] get %s(%d) failed! %s", MAPS[i].name, -1, strerror(errno));
      return -1;
    }
  }
  const int allocateMapFd = mapFds[0].get();
  const int sizeMapFd = mapFds[1].get();
  const int perprocessSizeMapFd = mapFds[2].get();

  ForEachProcess([&](int pid, const std::string& name) {
    const std::string fdDir = StringPrintf(TASK_FD_TEMPLATE, name.c_str());
    DirPtr fds = OpenDir(fdDir);
    if (!fds) return;

    int64_t total = 0;
    while (const dirent* fdEntry = readdir(fds.get())) {
      if (strcmp(fdEntry->d_name, ".") == 0 || strcmp(fdEntry->d_name, "..") == 0) continue;
      const std::string target = ReadSymlink((fdDir + "/" + fdEntry->d_name).c_str());
      if (target.find(TASK_DMABUF_PREFIX) == std::string::npos) continue;
      FdinfoFigures figures;
      // One read of fdinfo gives both figures; a size that is not positive
      // is as good as none.
      if (!ReadFdinfo(StringPrintf(TASK_FDINFO_TEMPLATE, name.c_str(), fdEntry->d_name), &figures) ||
          figures.size <= 0 || figures.inode == 0) {
        continue;
      }
      // A buffer reachable through several descriptors counts once.
      const auto counted = dmabufProcessInodes[pid].emplace(static_cast<uint32_t>(figures.inode), 1);
      if (!counted.second) {
        ++counted.first->second;
        continue;
      }
      total += figures.size;
      // A buffer several processes hold goes to the last one seen.
      dmabuf_allocate_info& info = dmabufInodeStats[figures.inode];
      info.pid = pid;
      info.size = figures.size;
    }
    // Only processes that hold dma-bufs have their maps file read.
    if (total == 0) return;
    dmabufProcessStats[pid] = dmabuf_stat{total, 0};

    const std::string mapsPath = StringPrintf(TASK_MAPS_TEMPLATE, name.c_str());
    std::ifstream maps(mapsPath);
    if (!maps.is_open()) {
      KELO_LOGW(LOG_TAG_SERVICE, "[KeloBpfService][IMIT] Task not exists, so we skip it (%s)", mapsPath.c_str());
      return;
    }
    std::string line;
    while (std::getline(maps, line)) {
      DmabufMapping mapping;
      if (ParseDmabufMapsLine(line, &mapping)) dmabufProcessMmaps[pid][mapping.start] = mapping.inode;
    }
  });

  for (const auto& [inode, info] : dmabufInodeStats) {
    if (!UpdateElem(allocateMapFd, &inode, &info)) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][INIT] update dmabuf allocate map failed! %s", strerror(errno));
    }
  }
  for (const auto& [pid, stat] : dmabufProcessStats) {
    if (!UpdateElem(sizeMapFd, &pid, &stat)) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][INIT] update dmabufSizeMap failed! %s", strerror(errno));
    }
    if (!UpdateElem(perprocessSizeMapFd, &pid, &stat)) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][INIT] update dmabufPerprocessSizeMap failed! %s", strerror(errno));
    }
  }
  clearScratch();
  return 0;
}

int KeloBpfService::initFdBpfProg() {
  KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][INIT] update open_fd_caller_map !");
  android::base::unique_fd mapFd(bpf_obj_get(pinnedPath(OPEN_FD_CALLER_MAP_PATH).c_str()));
  if (mapFd.get() < 0) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][INIT] get map_KeloBpfDefineset_open_fd_caller_map(%d) failed! %s", -1,
              strerror(errno));
    return -1;
  }

  ForEachProcess([&](int pid, const std::string& name) {
    // Deliberately, each process starts from a zeroed record and a status
    // stream of its own: a process that vanishes half-way (its fd directory
    // gone) is skipped alone and every later process is still scanned, and
    // one without a "Name:" line gets an empty name, never the previous
    // process's.
    open_fd_caller_info record{};
    std::ifstream status(StringPrintf(TASK_STATUS_TEMPLATE, name.c_str()));
    if (!status.is_open()) return;
    std::string line;
    while (std::getline(status, line)) {
      const size_t at = line.find(TASK_COMM_PREFIX);
      if (at == std::string::npos) continue;
      const std::string comm = line.substr(at + strlen(TASK_COMM_PREFIX));
      memset(record.comm, 0, sizeof(record.comm));
      memcpy(record.comm, comm.data(), std::min(comm.size(), sizeof(record.comm)));
      record.comm[sizeof(record.comm) - 1] = '\0';
    }
    DirPtr fds = OpenDir(StringPrintf(TASK_FD_TEMPLATE, name.c_str()));
    if (!fds) return;
    uint64_t count = 0;
    while (const dirent* fdEntry = readdir(fds.get())) {
      if (fdEntry->d_name[0] != '.') ++count;
    }
    record.pid = pid;
    record.open_count = count;
    record.reported_count = count;
    if (!UpdateElem(mapFd.get(), &pid, &record)) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][INIT] update open_fd_caller_map failed! %s", strerror(errno));
    }
  });
  return 0;
}

}  // namespace Bpf
}  // namespace Kelo
