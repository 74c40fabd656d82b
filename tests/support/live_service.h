// The service started in the test's process: the way kelobpfd --load starts
// it (the real kernel programs loaded and pinned in the sandbox's bpffs, the
// kernel version property set, the entry function called), or on the
// fixture rings of bpf_fixture.h.
#pragma once

#include <android-base/file.h>
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/utsname.h>

#include <cstdio>
#include <string>

#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_state.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait.h"

namespace kelo_test {

// True once the service's abstract socket is listening in this sandbox.
inline bool ServiceListening() {
  std::string table;
  return android::base::ReadFileToString("/proc/net/unix", &table) &&
         table.find(std::string("@") + Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME) != std::string::npos;
}

inline void SetServiceReady(bool ready) {
  android::base::SetProperty(Kelo::Bpf::KeloBpfService::KELO_BPF_READY, ready ? "1" : "0");
}

// Loads the kernel side and starts the service, ready from the start or
// waiting for SetServiceReady(true); returns once clients can connect.
inline void StartServiceLikeTheDaemon(bool ready = true) {
  MakeLogDirs();
  utsname name;
  ASSERT_EQ(uname(&name), 0);
  unsigned major = 0, minor = 0;
  ASSERT_EQ(sscanf(name.release, "%u.%u", &major, &minor), 2);
  android::base::SetProperty("ro.kernel.version", std::to_string(major) + "." + std::to_string(minor));
  signal(SIGPIPE, SIG_IGN);  // a subscriber that goes away must not end the test
  ASSERT_TRUE(LoadAndPinPrograms());
  SetServiceReady(ready);
  ASSERT_TRUE(Kelo::Bpf::BpfServiceMain());
  ASSERT_TRUE(WaitUntil(ServiceListening));
}

// Starts the service of this process on the fixture rings, ready at once and
// made with `config` if this is its first use; returns it once the normal
// pump has switched every event on, null after reporting that it did not.
inline Kelo::Bpf::KeloBpfService* StartServiceOnRings(const ServiceRingBuffers& rings,
                                                      const Kelo::Bpf::KeloBpfServiceConfig& config = {}) {
  MakeDirs(Kelo::Bpf::KeloBpfDataState::KELOTASK_DUMP_PATH);
  SetServiceReady(true);
  Kelo::Bpf::KeloBpfService* service = Kelo::Bpf::KeloBpfService::GetInstance(config);
  service->start();
  if (WaitUntil(
          [&] { return rings.normalStatus->Get(KELO_RB_STATUS_FLAGS) == (KELO_RB_FLAG_CORE | KELO_RB_FLAG_NORMAL); })) {
    return service;
  }
  ADD_FAILURE() << "the normal pump did not switch its events on";
  return nullptr;
}

}  // namespace kelo_test
