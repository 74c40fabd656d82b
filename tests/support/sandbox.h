// The test sandbox (scripts/sandbox.sh): a private tmpfs over /data, where
// the service keeps its error log and state file at fixed paths. Tests that
// write there refuse to run outside it.
#pragma once

#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "utils/kelo_bpf_error_log.h"

namespace kelo_test {

inline bool InSandbox() {
  const char* sandboxed = getenv("KELO_IN_SANDBOX");
  return sandboxed != nullptr && std::string(sandboxed) == "1";
}

#define KELO_SKIP_OUTSIDE_SANDBOX() \
  if (!kelo_test::InSandbox()) GTEST_SKIP() << "needs scripts/sandbox.sh"

// The parents of the service's files, which exist already on a device.
inline void MakeLogDirs() {
  mkdir("/data/kelolog", 0775);
  mkdir("/data/kelolog/stability", 0775);
}

// A fresh, empty error log.
inline void ResetErrorLog() {
  MakeLogDirs();
  Kelo::Bpf::InitBpfServiceErrorLog();
  unlink(Kelo::Bpf::ERROR_LOG_OLD_PATH);
}

inline std::string ErrorLogText() {
  std::string text;
  android::base::ReadFileToString(Kelo::Bpf::ERROR_LOG_PATH, &text);
  return text;
}

// Records of the error log with this code.
inline int ErrorLogCount(int code) {
  const std::string all = ErrorLogText();
  const std::string needle = "ErrorCode: " + std::to_string(code) + "\n";
  int found = 0;
  for (size_t p = all.find(needle); p != std::string::npos; p = all.find(needle, p + 1)) ++found;
  return found;
}

}  // namespace kelo_test
