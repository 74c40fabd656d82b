// Line parser of the dma-buf seeding (kelo_bpf_service_seed.cc), on its own so
// that the rules for /proc/<pid>/maps lines can be checked without a process
// that maps a dma-buf.
#pragma once

#include <cstdint>
#include <string>

namespace Kelo {
namespace Bpf {

// One dma-buf mapping of a /proc/<pid>/maps line: the low 32 bits of its
// start address and of the buffer's inode.
struct DmabufMapping {
  uint32_t start;
  uint32_t inode;
};

// True, with *out filled, when line (without its "\n") splits at runs of
// blanks into exactly six fields, the sixth containing "/dmabuf", and its
// first field is "<start>-<end>" in hexadecimal. A path with a blank in it
// makes a seventh field, so such a line is not used. Pure; any thread.
bool ParseDmabufMapsLine(const std::string& line, DmabufMapping* out);

}  // namespace Bpf
}  // namespace Kelo
