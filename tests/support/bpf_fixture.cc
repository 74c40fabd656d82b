#include "tests/support/bpf_fixture.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "bpf/kelo_bpf_inject.h"
#include "tests/support/emulation.h"

namespace kelo_test {

namespace {

using android::base::unique_fd;

static_assert(RingBufferFixture::kMaxInjectBytes == KELO_INJECT_MAX_BYTES,
              "fixture and injector program disagree on the record limit");

// XDP test runs refuse input shorter than an Ethernet header.
constexpr size_t kMinFrameBytes = ETH_HLEN;

// Creates a map and pins it at path (parents created); an empty descriptor
// after reporting the failure.
unique_fd CreatePinnedMap(const std::string& path, bpf_map_type type, uint32_t keySize, uint32_t valueSize,
                          uint32_t maxEntries) {
  if (!MakeDirs(path.substr(0, path.rfind('/')))) return unique_fd();
  unique_fd fd(bpf_map_create(type, nullptr, keySize, valueSize, maxEntries, nullptr));
  if (fd.get() < 0 || bpf_obj_pin(fd.get(), path.c_str()) != 0) {
    // Without bpf() at all (emulation) the test skips; see emulation.h.
    if (BpfAvailable()) ADD_FAILURE() << "creating and pinning " << path << ": " << std::strerror(errno);
    return unique_fd();
  }
  return fd;
}

}  // namespace

bool MakeDirs(const std::string& dir) {
  for (size_t pos = dir.find('/', 1);; pos = dir.find('/', pos + 1)) {
    const std::string prefix = dir.substr(0, pos);
    if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      ADD_FAILURE() << "mkdir(" << prefix << "): " << std::strerror(errno);
      return false;
    }
    if (pos == std::string::npos) return true;
  }
}

void RingBufferFixture::ObjectCloser::operator()(bpf_object* object) const { bpf_object__close(object); }

RingBufferFixture::RingBufferFixture(std::string path, unique_fd map) : path_(std::move(path)), map_(std::move(map)) {}

std::unique_ptr<RingBufferFixture> RingBufferFixture::Create(const std::string& path, uint32_t size) {
  unique_fd fd = CreatePinnedMap(path, BPF_MAP_TYPE_RINGBUF, 0, 0, size);
  return fd.ok() ? std::unique_ptr<RingBufferFixture>(new RingBufferFixture(path, std::move(fd))) : nullptr;
}

bool RingBufferFixture::loadInjector() {
  std::unique_ptr<bpf_object, ObjectCloser> object(bpf_object__open_file(KELO_BPF_INJECT_OBJ, nullptr));
  if (libbpf_get_error(object.get()) != 0) {
    object.release();  // an error code, not an object
    ADD_FAILURE() << "cannot open " << KELO_BPF_INJECT_OBJ;
    return false;
  }
  bpf_map* ring = bpf_object__find_map_by_name(object.get(), "inject_ringbuf");
  bpf_program* prog = bpf_object__find_program_by_name(object.get(), "kelo_inject");
  if (ring == nullptr || prog == nullptr) {
    ADD_FAILURE() << KELO_BPF_INJECT_OBJ << " lacks inject_ringbuf or kelo_inject";
    return false;
  }
  // The program writes into the ring buffer under test, not a map of its own.
  int err = bpf_map__reuse_fd(ring, map_.get());
  // Submits then wake the consumer as that status array asks.
  bpf_map* status = bpf_object__find_map_by_name(object.get(), "inject_status");
  if (err == 0 && statusFd_ >= 0) err = status != nullptr ? bpf_map__reuse_fd(status, statusFd_) : -ENOENT;
  if (err == 0) err = bpf_object__load(object.get());
  if (err != 0) {
    ADD_FAILURE() << "loading the injector for " << path_ << ": " << std::strerror(-err);
    return false;
  }
  injectorProg_ = bpf_program__fd(prog);
  injector_ = std::move(object);
  return true;
}

bool RingBufferFixture::Inject(const void* record, size_t len) {
  if (len == 0 || len > kMaxInjectBytes) {
    ADD_FAILURE() << "cannot inject a record of " << len << " bytes";
    return false;
  }
  if (!injector_ && !loadInjector()) return false;
  // The frame: the record's length, the record, padding up to the minimum.
  const uint32_t len32 = static_cast<uint32_t>(len);
  std::vector<uint8_t> frame(std::max(sizeof(len32) + len, kMinFrameBytes), 0);
  memcpy(frame.data(), &len32, sizeof(len32));
  memcpy(frame.data() + sizeof(len32), record, len);

  bpf_test_run_opts opts{};
  opts.sz = sizeof(opts);
  opts.data_in = frame.data();
  opts.data_size_in = static_cast<uint32_t>(frame.size());
  opts.repeat = 1;
  if (bpf_prog_test_run_opts(injectorProg_, &opts) != 0) {
    ADD_FAILURE() << "BPF_PROG_TEST_RUN of the injector: " << std::strerror(errno);
    return false;
  }
  if (opts.retval == XDP_ABORTED) ADD_FAILURE() << "the injector refused a frame for a " << len << "-byte record";
  return opts.retval == XDP_PASS;
}

std::unique_ptr<StatusArray> StatusArray::Create(const std::string& path) {
  unique_fd fd = CreatePinnedMap(path, BPF_MAP_TYPE_ARRAY, sizeof(uint32_t), sizeof(uint64_t), KELO_RB_STATUS_ENTRIES);
  return fd.ok() ? std::unique_ptr<StatusArray>(new StatusArray(std::move(fd))) : nullptr;
}

std::unique_ptr<StatusArray> StatusArray::Open(const std::string& path) {
  unique_fd fd(bpf_obj_get(path.c_str()));
  if (!fd.ok()) ADD_FAILURE() << "bpf_obj_get(" << path << "): " << std::strerror(errno);
  return fd.ok() ? std::unique_ptr<StatusArray>(new StatusArray(std::move(fd))) : nullptr;
}

std::unique_ptr<StatusArray> StatusArray::Of(int mapFd) {
  unique_fd fd(fcntl(mapFd, F_DUPFD_CLOEXEC, 0));
  if (!fd.ok()) ADD_FAILURE() << "dup of status array " << mapFd << ": " << std::strerror(errno);
  return fd.ok() ? std::unique_ptr<StatusArray>(new StatusArray(std::move(fd))) : nullptr;
}

uint64_t StatusArray::Get(uint32_t key) const {
  uint64_t value = 0;
  if (bpf_map_lookup_elem(map_.get(), &key, &value) != 0) {
    ADD_FAILURE() << "status lookup of entry " << key << ": " << std::strerror(errno);
  }
  return value;
}

bool StatusArray::Set(uint32_t key, uint64_t value) {
  const bool set = bpf_map_update_elem(map_.get(), &key, &value, BPF_ANY) == 0;
  if (!set) ADD_FAILURE() << "status update of entry " << key << ": " << std::strerror(errno);
  return set;
}

std::unique_ptr<LostCounts> LostCounts::Create(const std::string& path) {
  unique_fd fd = CreatePinnedMap(path, BPF_MAP_TYPE_PERCPU_ARRAY, sizeof(uint32_t), sizeof(kelo_ringbuf_lost),
                                 KELO_RB_LOST_ENTRIES);
  return fd.ok() ? std::unique_ptr<LostCounts>(new LostCounts(std::move(fd))) : nullptr;
}

std::unique_ptr<LostCounts> LostCounts::Of(int mapFd) {
  unique_fd fd(fcntl(mapFd, F_DUPFD_CLOEXEC, 0));
  if (!fd.ok()) ADD_FAILURE() << "dup of lost counts " << mapFd << ": " << std::strerror(errno);
  return fd.ok() ? std::unique_ptr<LostCounts>(new LostCounts(std::move(fd))) : nullptr;
}

std::vector<kelo_ringbuf_lost> LostCounts::read(uint32_t type) const {
  std::vector<kelo_ringbuf_lost> perCpu(static_cast<size_t>(libbpf_num_possible_cpus()));
  if (bpf_map_lookup_elem(map_.get(), &type, perCpu.data()) != 0) {
    ADD_FAILURE() << "lost count lookup of type " << type << ": " << std::strerror(errno);
    return {};
  }
  return perCpu;
}

bool LostCounts::Add(uint32_t type, uint64_t records, int cpu) {
  std::vector<kelo_ringbuf_lost> perCpu = read(type);
  if (cpu < 0 || static_cast<size_t>(cpu) >= perCpu.size()) return false;
  perCpu[static_cast<size_t>(cpu)].records += records;
  const bool set = bpf_map_update_elem(map_.get(), &type, perCpu.data(), BPF_ANY) == 0;
  if (!set) ADD_FAILURE() << "lost count update of type " << type << ": " << std::strerror(errno);
  return set;
}

uint64_t LostCounts::Total(uint32_t type) const {
  uint64_t total = 0;
  for (const kelo_ringbuf_lost& cpu : read(type)) total += cpu.records;
  return total;
}

std::unique_ptr<ServiceRingBuffers> ServiceRingBuffers::Create() {
  auto rings = std::make_unique<ServiceRingBuffers>();
  rings->normal = RingBufferFixture::Create(KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_map"), KELO_RINGBUF_BYTES);
  rings->normalStatus = StatusArray::Create(KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_status"));
  rings->normalLost = LostCounts::Create(KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_lost"));
  rings->gpl =
      RingBufferFixture::Create(KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "ringbuf_map"), KELO_GPL_RINGBUF_BYTES);
  rings->gplStatus = StatusArray::Create(KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "ringbuf_status"));
  rings->gplLost = LostCounts::Create(KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "ringbuf_lost"));
  const bool complete =
      rings->normal && rings->normalStatus && rings->normalLost && rings->gpl && rings->gplStatus && rings->gplLost;
  if (!complete) return nullptr;
  rings->normal->FollowWakeMode(rings->normalStatus->fd());
  rings->gpl->FollowWakeMode(rings->gplStatus->fd());
  return rings;
}

void RingBufferReader::RingCloser::operator()(ring_buffer* ring) const { ring_buffer__free(ring); }

std::unique_ptr<RingBufferReader> RingBufferReader::Create(int ringBufferFd) {
  std::unique_ptr<RingBufferReader> reader(new RingBufferReader());
  reader->ring_.reset(ring_buffer__new(ringBufferFd, onRecord, reader.get(), nullptr));
  if (!reader->ring_) ADD_FAILURE() << "ring_buffer__new: " << std::strerror(errno);
  return reader->ring_ ? std::move(reader) : nullptr;
}

int RingBufferReader::onRecord(void* ctx, void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  static_cast<RingBufferReader*>(ctx)->records_.emplace_back(bytes, bytes + size);
  return 0;
}

std::vector<std::vector<uint8_t>> RingBufferReader::Drain() {
  if (ring_buffer__consume(ring_.get()) < 0) ADD_FAILURE() << "ring_buffer__consume: " << std::strerror(errno);
  return std::exchange(records_, {});
}

bool LoadAndPinPrograms(const std::string& dir, Kelo::Bpf::BpfLoadReport* report) {
  Kelo::Bpf::BpfLoadReport scratch;
  if (report == nullptr) report = &scratch;
  const int failures = Kelo::Bpf::LoadAndPinBpfSets(Kelo::Bpf::DefaultBpfObjectSets(KELO_BPF_OBJ_DIR), dir, report);
  for (const std::string& line : report->failedPrograms) ADD_FAILURE() << "not loaded: " << line;
  for (const std::string& line : report->errors) ADD_FAILURE() << line;
  return failures == 0;
}

}  // namespace kelo_test
