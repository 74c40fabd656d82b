// String helpers used throughout the service. Their exact behaviour is part of
// file formats, log lines and parsers elsewhere: Split drops empty pieces (the
// procfs scans and the kernel-version parser rely on it), ConvertToHexString
// ends every byte with a blank, and StringPrintf never truncates.
#pragma once

#include <string>
#include <vector>

namespace Kelo {
namespace Bpf {

// True when s is non-empty and every character is '0'..'9'.
bool IsDigits(std::string& s);

// "xx " for each of the first `length` bytes (lowercase, zero padded, each
// followed by one blank); "" when length <= 0.
std::string ConvertToHexString(const char* data, int length);

// printf into a string of exactly the needed size; "" on a formatting error.
std::string StringPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Pieces of s between occurrences of the whole delimiter, empty pieces
// dropped. An empty delimiter yields s itself as the only piece (or nothing
// for an empty s).
std::vector<std::string> Split(const std::string& s, const std::string& delimiter);

}  // namespace Bpf
}  // namespace Kelo
