// Placeholders until the seeding and the dumps land.
#include "service/kelo_bpf_service.h"
namespace Kelo {
namespace Bpf {
int KeloBpfService::initDmabufBpfProg() { return 0; }
int KeloBpfService::initFdBpfProg() { return 0; }
long KeloBpfService::GetFdSize(const std::string&) { return 0; }
unsigned long long KeloBpfService::GetFdInode(const std::string&) { return 0; }
void HandleDumpSignal(int) {}
void HandleNonKernelDumpSignal(int) {}
void HandleDumpSignalNormal(int) {}
void HandleNonKernelDumpSignalNormal(int) {}
}  // namespace Bpf
}  // namespace Kelo
