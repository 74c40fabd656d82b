// Kernel-version rules of the attach tables.
#include <android-base/properties.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "helper/kelo_bpf_helper_attach.h"
#include "helper/kelo_bpf_helper_strings.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {

namespace {

constexpr int VERSION_MAJOR_FACTOR = 1000;

// Leading decimal digits of piece, as stoi would read them; false when there
// are none or the value does not fit an int. Signs and blanks are refused:
// a kernel version has neither.
bool ReadVersionPiece(const std::string& piece, int64_t* value) {
  int64_t v = 0;
  size_t i = 0;
  for (; i < piece.size() && piece[i] >= '0' && piece[i] <= '9'; ++i) {
    v = v * 10 + (piece[i] - '0');
    if (v > INT_MAX) return false;
  }
  if (i == 0) return false;
  *value = v;
  return true;
}

// Logs a rule that cannot be read; such a row is never compatible.
bool RejectRule(const std::string& kernelCompat) {
  KELO_LOGE(LOG_TAG_UTILS, "[CheckBpfCompatibility] Invalid kernel compat: %s", kernelCompat.c_str());
  return false;
}

// Reads one bound of kernelCompat; false (logged) when it is unreadable.
bool ReadRuleBound(const std::string& bound, const std::string& kernelCompat, int* value) {
  *value = convertVersionToInt(bound);
  return *value != INVALID_KERNEL_VERSION || RejectRule(kernelCompat);
}

}  // namespace

int convertVersionToInt(const std::string& version) {
  const std::vector<std::string> pieces = Split(version, ".");
  int64_t major = 0;
  int64_t minor = 0;
  if (pieces.size() < 2 || !ReadVersionPiece(pieces[0], &major) || !ReadVersionPiece(pieces[1], &minor)) {
    return INVALID_KERNEL_VERSION;
  }
  const int64_t combined = major * VERSION_MAJOR_FACTOR + minor;
  return combined > INT_MAX ? INVALID_KERNEL_VERSION : static_cast<int>(combined);
}

bool CheckBpfCompatibility(const std::string& kernelCompat) {
  const std::string running = android::base::GetProperty(KERNEL_VERSION_PROPERTY, KERNEL_VERSION_DEFAULT);
  const int kernel = convertVersionToInt(running);
  if (kernel == INVALID_KERNEL_VERSION) {
    // An unreadable kernel version must not let any program onto the kernel.
    KELO_LOGE(LOG_TAG_UTILS, "[CheckBpfCompatibility] Invalid kernel version: %s", running.c_str());
    return false;
  }
  if (kernelCompat.empty()) return RejectRule(kernelCompat);
  const std::string withoutLast = kernelCompat.substr(0, kernelCompat.size() - 1);
  int bound = 0;
  // The trailing "-" is tested first: "4.19-" is an upper bound, not a range.
  if (kernelCompat.back() == '-') {
    return ReadRuleBound(withoutLast, kernelCompat, &bound) && kernel <= bound;
  }
  if (kernelCompat.back() == '+') {
    return ReadRuleBound(withoutLast, kernelCompat, &bound) && kernel >= bound;
  }
  if (kernelCompat.find('-') != std::string::npos) {
    const std::vector<std::string> range = Split(kernelCompat, "-");
    if (range.size() < 2) return RejectRule(kernelCompat);
    // The upper bound is only looked at once the lower one holds.
    if (!ReadRuleBound(range[0], kernelCompat, &bound) || kernel < bound) return false;
    return ReadRuleBound(range[1], kernelCompat, &bound) && kernel <= bound;
  }
  return ReadRuleBound(kernelCompat, kernelCompat, &bound) && kernel == bound;
}

}  // namespace Bpf
}  // namespace Kelo
