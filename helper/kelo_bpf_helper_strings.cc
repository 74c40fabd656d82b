#include "helper/kelo_bpf_helper_strings.h"

#include <cstdarg>
#include <cstdio>
#include <memory>

namespace Kelo {
namespace Bpf {

bool IsDigits(std::string& s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

std::string ConvertToHexString(const char* data, int length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  if (length <= 0) return out;
  out.reserve(static_cast<size_t>(length) * 3);
  for (int i = 0; i < length; ++i) {
    const unsigned char byte = static_cast<unsigned char>(data[i]);
    out.push_back(kDigits[byte >> 4]);
    out.push_back(kDigits[byte & 0xf]);
    out.push_back(' ');
  }
  return out;
}

std::string StringPrintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list measure;
  va_copy(measure, args);
  const int n = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  std::string out;
  if (n >= 1) {
    std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(n) + 1]);
    vsnprintf(buffer.get(), static_cast<size_t>(n) + 1, format, args);
    out.assign(buffer.get(), static_cast<size_t>(n));
  }
  va_end(args);
  return out;
}

std::vector<std::string> Split(const std::string& s, const std::string& delimiter) {
  std::vector<std::string> pieces;
  if (delimiter.empty()) {
    if (!s.empty()) pieces.push_back(s);
    return pieces;
  }
  size_t start = 0;
  while (s.size() - start >= delimiter.size()) {
    const size_t p = s.find(delimiter, start);
    if (p == std::string::npos) break;
    if (p > start) pieces.emplace_back(s, start, p - start);
    start = p + delimiter.size();
  }
  if (start < s.size()) pieces.emplace_back(s, start);
  return pieces;
}

}  // namespace Bpf
}  // namespace Kelo
