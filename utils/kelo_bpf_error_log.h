// A small persistent error log beside the platform log, so that failures of
// the IPC framework can be read after the fact. The newest record is always at
// the top; the file is bounded by line count and each service start keeps
// exactly one previous run as error.old.log.
#pragma once

#include <string>

namespace Kelo {
namespace Bpf {

inline constexpr char ERROR_LOG_DIR[] = "/data/kelolog/stability/kelobpfframework/";
inline constexpr char ERROR_LOG_PATH[] = "/data/kelolog/stability/kelobpfframework/error.log";
inline constexpr char ERROR_LOG_OLD_PATH[] = "/data/kelolog/stability/kelobpfframework/error.old.log";

// Lines of the previous content kept below a new record.
inline constexpr int ERROR_LOG_MAX_KEPT_LINES = 4999;

// Error codes, all recorded by the IPC framework.
enum BpfServiceErrorCode : int {
  ERROR_CODE_SEND_RETRIES_EXHAUSTED = 1,
  ERROR_CODE_PACKAGE_DAMAGED = 2,
  ERROR_CODE_QUEUE_FULL_BUILD_AND_APPEND = 3,
  ERROR_CODE_QUEUE_FULL_SECOND_LEVEL = 4,
  ERROR_CODE_QUEUE_FULL_REQUEST = 5,
  ERROR_CODE_QUEUE_FULL_RESPONSE = 6,
  ERROR_CODE_OVERSIZED_BULK_FILL = 7,
  ERROR_CODE_OVERSIZED_SINGLE_FILL = 8,
};

// Creates the directory and renames error.log to error.old.log.
void InitBpfServiceErrorLog();

// Puts one record at the top of error.log, above the first 4999 lines of the
// previous content. Callable from any thread (the threads of one process take
// turns); file errors are logged to the platform log and otherwise ignored.
void RecordBpfServiceErrorInfo(int errorCode, const std::string& error);

}  // namespace Bpf
}  // namespace Kelo
