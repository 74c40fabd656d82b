// Placeholders until the seeding and the dumps land.
#include "service/kelo_bpf_service.h"
namespace Kelo {
namespace Bpf {
void HandleDumpSignal(int) {}
void HandleNonKernelDumpSignal(int) {}
void HandleDumpSignalNormal(int) {}
void HandleNonKernelDumpSignalNormal(int) {}
}  // namespace Bpf
}  // namespace Kelo
