#include "tests/support/log_capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

namespace kelo_test {

LogCapture::LogCapture() {
  fflush(stderr);
  memFd_ = memfd_create("kelo-log-capture", MFD_CLOEXEC);
  savedStderr_ = dup(STDERR_FILENO);
  dup2(memFd_, STDERR_FILENO);
}

LogCapture::~LogCapture() {
  fflush(stderr);
  dup2(savedStderr_, STDERR_FILENO);
  close(savedStderr_);
  close(memFd_);
}

std::string LogCapture::text() const {
  fflush(stderr);
  std::string out;
  char buffer[4096];
  off_t offset = 0;
  ssize_t n;
  while ((n = pread(memFd_, buffer, sizeof(buffer), offset)) > 0) {
    out.append(buffer, static_cast<size_t>(n));
    offset += n;
  }
  return out;
}

int LogCapture::count(const std::string& needle) const {
  const std::string all = text();
  int found = 0;
  for (size_t p = all.find(needle); p != std::string::npos; p = all.find(needle, p + needle.size())) ++found;
  return found;
}

}  // namespace kelo_test
