// Captures what the platform log prints. On a Debian host liblog writes every
// line to stderr, so the capture redirects descriptor 2 into a memfd for the
// lifetime of the object.
#pragma once

#include <string>

namespace kelo_test {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Everything logged since construction.
  std::string text() const;
  bool contains(const std::string& needle) const { return text().find(needle) != std::string::npos; }
  // Number of occurrences of needle.
  int count(const std::string& needle) const;

 private:
  int savedStderr_ = -1;
  int memFd_ = -1;
};

}  // namespace kelo_test
