#include "utils/kelo_bpf_error_log.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

namespace Kelo {
namespace Bpf {
namespace {

using ::testing::ElementsAre;

// Lines of the log as written, including the empty line after each record.
std::vector<std::string> LogLines() {
  std::vector<std::string> lines = android::base::Split(kelo_test::ErrorLogText(), "\n");
  EXPECT_EQ(lines.back(), "") << "the log does not end with a newline";
  lines.pop_back();
  return lines;
}

// The log lives at its fixed path under the sandbox's private /data.
class ErrorLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    kelo_test::MakeLogDirs();
    InitBpfServiceErrorLog();
  }
};

TEST_F(ErrorLogTest, FirstRecordIsTheWholeFileWithTheRecordingThreadAndTheCmdline) {
  kelo_test::LogCapture log;
  pid_t tid = 0;
  std::thread([&tid] {
    prctl(PR_SET_NAME, "BpfServiceTr");
    tid = gettid();
    RecordBpfServiceErrorInfo(ERROR_CODE_PACKAGE_DAMAGED, "bad frame");
  }).join();
  EXPECT_TRUE(log.contains(std::string("BpfUtils E")));
  EXPECT_TRUE(log.contains(std::string("failed to read ") + ERROR_LOG_PATH + ", error: No such file or directory"));

  std::vector<std::string> lines = LogLines();
  ASSERT_EQ(lines.size(), 9u);
  EXPECT_THAT(lines[1], ::testing::MatchesRegex("Time: [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"));
  lines[1] = "Time";
  // ctest passes at least a test filter, so the arguments are blank-separated.
  EXPECT_THAT(lines,
              ElementsAre("----------", "Time", "Pid: " + std::to_string(getpid()), "Tid: " + std::to_string(tid),
                          "Cmdline: " + android::base::Join(::testing::internal::GetArgvs(), " "), "Comm: BpfServiceTr",
                          "ErrorCode: 2", "Error: bad frame", ""));
}

TEST_F(ErrorLogTest, NewestRecordComesFirstAndTheOldLogIsCutTo4999Lines) {
  // A short log is kept whole, even without a final newline.
  ASSERT_TRUE(android::base::WriteStringToFile("first\n\nlast", ERROR_LOG_PATH));
  RecordBpfServiceErrorInfo(3, "older");
  RecordBpfServiceErrorInfo(4, "newer");
  std::vector<std::string> lines = LogLines();
  ASSERT_EQ(lines.size(), 21u);
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 6, lines.begin() + 10),
              ElementsAre("ErrorCode: 4", "Error: newer", "", "----------"));
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 15, lines.end()),
              ElementsAre("ErrorCode: 3", "Error: older", "", "first", "", "last"));

  std::string old;
  for (int i = 0; i < 6000; ++i) old += "old " + std::to_string(i) + "\n";
  ASSERT_TRUE(android::base::WriteStringToFile(old, ERROR_LOG_PATH));
  RecordBpfServiceErrorInfo(7, "too big");
  lines = LogLines();
  ASSERT_EQ(lines.size(), 9u + 4999u);
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 7, lines.begin() + 10),
              ElementsAre("Error: too big", "", "old 0"));
  EXPECT_EQ(lines.back(), "old 4998");
}

TEST_F(ErrorLogTest, StartRotatesTheLogOfThePreviousRun) {
  ASSERT_TRUE(android::base::WriteStringToFile("run 1\n", ERROR_LOG_OLD_PATH));
  ASSERT_TRUE(android::base::WriteStringToFile("run 2\n", ERROR_LOG_PATH));
  std::string old;
  InitBpfServiceErrorLog();
  EXPECT_NE(access(ERROR_LOG_PATH, F_OK), 0);
  EXPECT_TRUE(android::base::ReadFileToString(ERROR_LOG_OLD_PATH, &old) && old == "run 2\n") << old;
  // A start without a current log keeps the previous one.
  InitBpfServiceErrorLog();
  EXPECT_TRUE(android::base::ReadFileToString(ERROR_LOG_OLD_PATH, &old) && old == "run 2\n") << old;
}

TEST_F(ErrorLogTest, UnwritableLogIsReportedAndIgnored) {
  ASSERT_EQ(mkdir(ERROR_LOG_PATH, 0775), 0);
  kelo_test::LogCapture log;
  RecordBpfServiceErrorInfo(1, "lost");
  EXPECT_TRUE(log.contains(std::string("failed to read ") + ERROR_LOG_PATH + ", error: Is a directory"));
  EXPECT_TRUE(log.contains(std::string("failed to write ") + ERROR_LOG_PATH + ", error: Is a directory"));
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
