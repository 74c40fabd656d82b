#include "tests/support/bpf_fixture.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "bpf/kelo_bpf_inject.h"

namespace kelo_test {

namespace {

using android::base::unique_fd;

static_assert(RingBufferFixture::kMaxInjectBytes == KELO_INJECT_MAX_BYTES,
              "fixture and injector program disagree on the record limit");

std::string ParentDir(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

unique_fd OpenPinned(const std::string& path) {
  unique_fd fd(bpf_obj_get(path.c_str()));
  if (fd.get() < 0) {
    ADD_FAILURE() << "bpf_obj_get(" << path << "): " << std::strerror(errno);
  }
  return fd;
}

// XDP test runs refuse input shorter than an Ethernet header.
constexpr size_t kMinFrameBytes = ETH_HLEN;

}  // namespace

bool MakeDirs(const std::string& dir) {
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = dir.find('/', pos + 1);
    std::string prefix = dir.substr(0, pos);
    if (!prefix.empty() && mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      ADD_FAILURE() << "mkdir(" << prefix << "): " << std::strerror(errno);
      return false;
    }
  }
  return true;
}

unique_fd CreatePinnedMap(const std::string& path, bpf_map_type type, uint32_t keySize,
                          uint32_t valueSize, uint32_t maxEntries) {
  if (!MakeDirs(ParentDir(path))) {
    return unique_fd();
  }
  unique_fd fd(bpf_map_create(type, nullptr, keySize, valueSize, maxEntries, nullptr));
  if (fd.get() < 0) {
    ADD_FAILURE() << "bpf_map_create for " << path << ": " << std::strerror(errno);
    return unique_fd();
  }
  if (bpf_obj_pin(fd.get(), path.c_str()) != 0) {
    ADD_FAILURE() << "bpf_obj_pin(" << path << "): " << std::strerror(errno);
    return unique_fd();
  }
  return fd;
}

void RingBufferFixture::ObjectCloser::operator()(bpf_object* object) const {
  bpf_object__close(object);
}

RingBufferFixture::RingBufferFixture(std::string path, unique_fd map)
    : path_(std::move(path)), map_(std::move(map)) {}

std::unique_ptr<RingBufferFixture> RingBufferFixture::Create(const std::string& path, uint32_t size) {
  unique_fd fd = CreatePinnedMap(path, BPF_MAP_TYPE_RINGBUF, 0, 0, size);
  if (fd.get() < 0) {
    return nullptr;
  }
  return std::unique_ptr<RingBufferFixture>(new RingBufferFixture(path, std::move(fd)));
}

std::unique_ptr<RingBufferFixture> RingBufferFixture::Open(const std::string& path) {
  unique_fd fd = OpenPinned(path);
  if (fd.get() < 0) {
    return nullptr;
  }
  return std::unique_ptr<RingBufferFixture>(new RingBufferFixture(path, std::move(fd)));
}

bool RingBufferFixture::loadInjector() {
  bpf_object* object = bpf_object__open_file(KELO_BPF_INJECT_OBJ, nullptr);
  if (libbpf_get_error(object) != 0) {
    ADD_FAILURE() << "cannot open " << KELO_BPF_INJECT_OBJ;
    return false;
  }
  std::unique_ptr<bpf_object, ObjectCloser> owned(object);
  bpf_map* ring = bpf_object__find_map_by_name(object, "inject_ringbuf");
  bpf_program* prog = bpf_object__find_program_by_name(object, "kelo_inject");
  if (ring == nullptr || prog == nullptr) {
    ADD_FAILURE() << KELO_BPF_INJECT_OBJ << " lacks inject_ringbuf or kelo_inject";
    return false;
  }
  // The program writes into the ring buffer under test, not a map of its own.
  int err = bpf_map__reuse_fd(ring, map_.get());
  if (err == 0) {
    err = bpf_object__load(object);
  }
  if (err != 0) {
    ADD_FAILURE() << "loading the injector for " << path_ << ": " << std::strerror(-err);
    return false;
  }
  injectorProg_ = bpf_program__fd(prog);
  injector_ = std::move(owned);
  return true;
}

bool RingBufferFixture::Inject(const void* record, size_t len) {
  if (len == 0 || len > kMaxInjectBytes) {
    ADD_FAILURE() << "cannot inject a record of " << len << " bytes";
    return false;
  }
  if (!injector_ && !loadInjector()) {
    return false;
  }
  uint32_t len32 = static_cast<uint32_t>(len);
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
  if (opts.retval == XDP_ABORTED) {
    ADD_FAILURE() << "the injector refused a frame for a " << len << "-byte record";
  }
  return opts.retval == XDP_PASS;
}

std::unique_ptr<StatusArray> StatusArray::Create(const std::string& path) {
  unique_fd fd = CreatePinnedMap(path, BPF_MAP_TYPE_ARRAY, sizeof(uint32_t), sizeof(uint64_t),
                                 KELO_RB_STATUS_ENTRIES);
  if (fd.get() < 0) {
    return nullptr;
  }
  return std::unique_ptr<StatusArray>(new StatusArray(std::move(fd)));
}

std::unique_ptr<StatusArray> StatusArray::Open(const std::string& path) {
  unique_fd fd = OpenPinned(path);
  if (fd.get() < 0) {
    return nullptr;
  }
  return std::unique_ptr<StatusArray>(new StatusArray(std::move(fd)));
}

uint64_t StatusArray::Get(uint32_t key) const {
  uint64_t value = 0;
  if (bpf_map_lookup_elem(map_.get(), &key, &value) != 0) {
    ADD_FAILURE() << "status lookup of entry " << key << ": " << std::strerror(errno);
    return 0;
  }
  return value;
}

bool StatusArray::Set(uint32_t key, uint64_t value) {
  if (bpf_map_update_elem(map_.get(), &key, &value, BPF_ANY) != 0) {
    ADD_FAILURE() << "status update of entry " << key << ": " << std::strerror(errno);
    return false;
  }
  return true;
}

std::unique_ptr<ServiceRingBuffers> ServiceRingBuffers::Create() {
  auto rings = std::make_unique<ServiceRingBuffers>();
  rings->normal = RingBufferFixture::Create(
      KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_map"), KELO_RINGBUF_BYTES);
  rings->normalStatus = StatusArray::Create(KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_status"));
  rings->gpl = RingBufferFixture::Create(KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "ringbuf_map"),
                                         KELO_GPL_RINGBUF_BYTES);
  rings->gplStatus = StatusArray::Create(KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "ringbuf_status"));
  if (!rings->normal || !rings->normalStatus || !rings->gpl || !rings->gplStatus) {
    return nullptr;
  }
  return rings;
}

void RingBufferReader::RingCloser::operator()(ring_buffer* ring) const {
  ring_buffer__free(ring);
}

std::unique_ptr<RingBufferReader> RingBufferReader::Create(int ringBufferFd) {
  std::unique_ptr<RingBufferReader> reader(new RingBufferReader());
  ring_buffer* ring = ring_buffer__new(ringBufferFd, onRecord, reader.get(), nullptr);
  if (ring == nullptr) {
    ADD_FAILURE() << "ring_buffer__new: " << std::strerror(errno);
    return nullptr;
  }
  reader->ring_.reset(ring);
  return reader;
}

int RingBufferReader::onRecord(void* ctx, void* data, size_t size) {
  auto* reader = static_cast<RingBufferReader*>(ctx);
  const auto* bytes = static_cast<const uint8_t*>(data);
  reader->records_.emplace_back(bytes, bytes + size);
  return 0;
}

std::vector<std::vector<uint8_t>> RingBufferReader::Drain() {
  if (ring_buffer__consume(ring_.get()) < 0) {
    ADD_FAILURE() << "ring_buffer__consume: " << std::strerror(errno);
  }
  std::vector<std::vector<uint8_t>> records;
  records.swap(records_);
  return records;
}

std::vector<std::vector<uint8_t>> RingBufferReader::WaitFor(size_t count,
                                                            std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  constexpr int kPollSliceMs = 50;
  while (records_.size() < count && std::chrono::steady_clock::now() < deadline) {
    if (ring_buffer__poll(ring_.get(), kPollSliceMs) < 0 && errno != EINTR) {
      ADD_FAILURE() << "ring_buffer__poll: " << std::strerror(errno);
      break;
    }
  }
  std::vector<std::vector<uint8_t>> records;
  records.swap(records_);
  return records;
}

bool LoadAndPinPrograms(const std::string& dir, Kelo::Bpf::BpfLoadReport* report) {
  Kelo::Bpf::BpfLoadReport scratch;
  if (report == nullptr) {
    report = &scratch;
  }
  int failures = Kelo::Bpf::LoadAndPinBpfSets(Kelo::Bpf::DefaultBpfObjectSets(KELO_BPF_OBJ_DIR),
                                              dir, report);
  for (const std::string& line : report->failedPrograms) {
    ADD_FAILURE() << "not loaded: " << line;
  }
  for (const std::string& line : report->errors) {
    ADD_FAILURE() << line;
  }
  return failures == 0;
}

}  // namespace kelo_test
