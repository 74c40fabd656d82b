// Command-line value parsing shared by the daemon and the client tool.
#pragma once

#include <cmath>
#include <cstdlib>

namespace Kelo {
namespace Bpf {

// A finite, non-negative number of seconds ("2", "0.5"); false for anything
// else, including trailing characters.
inline bool ParseSeconds(const char* text, double* seconds) {
  char* end = nullptr;
  const double value = strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(value) || value < 0) return false;
  *seconds = value;
  return true;
}

}  // namespace Bpf
}  // namespace Kelo
