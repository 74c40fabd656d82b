#include "utils/kelo_bpf_error_log.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"

namespace Kelo {
namespace Bpf {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

// Lines of the file as written, including the empty line after each record.
std::vector<std::string> FileLines(const std::string& path) {
  std::string text;
  EXPECT_TRUE(android::base::ReadFileToString(path, &text)) << path;
  std::vector<std::string> lines = android::base::Split(text, "\n");
  EXPECT_EQ(lines.back(), "") << "file does not end with a newline";
  lines.pop_back();
  return lines;
}

std::string ReadFile(const std::string& path) {
  std::string text;
  EXPECT_TRUE(android::base::ReadFileToString(path, &text)) << path;
  return text;
}

bool Exists(const char* path) { return access(path, F_OK) == 0; }

// The log lives at its fixed path under /data, which the test sandbox
// replaces by a private tmpfs; outside it the cases refuse to run.
class ErrorLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* sandboxed = getenv("KELO_IN_SANDBOX");
    if (sandboxed == nullptr || std::string(sandboxed) != "1") GTEST_SKIP() << "needs scripts/sandbox.sh";
    // On a device the parent directories exist already.
    mkdir("/data/kelolog", 0775);
    mkdir("/data/kelolog/stability", 0775);
  }
};

TEST_F(ErrorLogTest, FirstRecordAfterStartIsTheWholeFile) {
  InitBpfServiceErrorLog();
  kelo_test::LogCapture log;
  RecordBpfServiceErrorInfo(ERROR_CODE_PACKAGE_DAMAGED, "bad frame");

  EXPECT_TRUE(log.contains("BpfUtils E"));
  EXPECT_TRUE(log.contains(std::string("failed to read ") + ERROR_LOG_PATH + ", error: No such file or directory"));
  const std::vector<std::string> lines = FileLines(ERROR_LOG_PATH);
  ASSERT_EQ(lines.size(), 9u);
  EXPECT_EQ(lines[0], "----------");
  EXPECT_THAT(lines[1], MatchesRegex("Time: [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"));
  EXPECT_EQ(lines[2], "Pid: " + std::to_string(getpid()));
  EXPECT_EQ(lines[3], "Tid: " + std::to_string(gettid()));
  EXPECT_EQ(lines[6], "ErrorCode: 2");
  EXPECT_EQ(lines[7], "Error: bad frame");
  EXPECT_EQ(lines[8], "");
}

TEST_F(ErrorLogTest, CmdlineShowsArgumentsSeparatedByBlanks) {
  InitBpfServiceErrorLog();
  RecordBpfServiceErrorInfo(1, "x");
  const std::vector<std::string> args = ::testing::internal::GetArgvs();
  ASSERT_GE(args.size(), 2u) << "ctest passes at least a test filter";
  EXPECT_EQ(FileLines(ERROR_LOG_PATH)[4], "Cmdline: " + android::base::Join(args, " "));
}

TEST_F(ErrorLogTest, CommAndTidAreThoseOfTheCallingThread) {
  InitBpfServiceErrorLog();
  pid_t tid = 0;
  std::thread recorder([&tid] {
    prctl(PR_SET_NAME, "BpfServiceTr");
    tid = gettid();
    RecordBpfServiceErrorInfo(ERROR_CODE_SEND_RETRIES_EXHAUSTED, "send failed");
  });
  recorder.join();
  const std::vector<std::string> lines = FileLines(ERROR_LOG_PATH);
  ASSERT_EQ(lines.size(), 9u);
  EXPECT_NE(tid, getpid());
  EXPECT_EQ(lines[3], "Tid: " + std::to_string(tid));
  EXPECT_EQ(lines[5], "Comm: BpfServiceTr");
}

TEST_F(ErrorLogTest, NewestRecordComesFirst) {
  InitBpfServiceErrorLog();
  RecordBpfServiceErrorInfo(3, "older");
  RecordBpfServiceErrorInfo(4, "newer");
  const std::vector<std::string> lines = FileLines(ERROR_LOG_PATH);
  ASSERT_EQ(lines.size(), 18u);
  EXPECT_EQ(lines[6], "ErrorCode: 4");
  EXPECT_EQ(lines[7], "Error: newer");
  EXPECT_EQ(lines[8], "");
  EXPECT_EQ(lines[9], "----------");
  EXPECT_EQ(lines[15], "ErrorCode: 3");
  EXPECT_EQ(lines[16], "Error: older");
}

TEST_F(ErrorLogTest, KeepsTheFirst4999LinesOfALongLog) {
  InitBpfServiceErrorLog();
  std::string old;
  for (int i = 0; i < 6000; ++i) old += "old " + std::to_string(i) + "\n";
  ASSERT_TRUE(android::base::WriteStringToFile(old, ERROR_LOG_PATH));

  RecordBpfServiceErrorInfo(7, "too big");
  const std::vector<std::string> lines = FileLines(ERROR_LOG_PATH);
  ASSERT_EQ(lines.size(), 9u + 4999u);
  EXPECT_EQ(lines[7], "Error: too big");
  EXPECT_EQ(lines[8], "");
  EXPECT_EQ(lines[9], "old 0");
  EXPECT_EQ(lines.back(), "old 4998");
}

TEST_F(ErrorLogTest, KeepsAShortLogWholeEvenWithoutFinalNewline) {
  InitBpfServiceErrorLog();
  ASSERT_TRUE(android::base::WriteStringToFile("first\n\nlast", ERROR_LOG_PATH));
  RecordBpfServiceErrorInfo(8, "e");
  const std::vector<std::string> lines = FileLines(ERROR_LOG_PATH);
  ASSERT_EQ(lines.size(), 12u);
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 9, lines.end()), ElementsAre("first", "", "last"));
}

TEST_F(ErrorLogTest, StartRotatesTheLogOfThePreviousRun) {
  InitBpfServiceErrorLog();
  ASSERT_TRUE(android::base::WriteStringToFile("run 1\n", ERROR_LOG_OLD_PATH));
  ASSERT_TRUE(android::base::WriteStringToFile("run 2\n", ERROR_LOG_PATH));

  InitBpfServiceErrorLog();
  EXPECT_FALSE(Exists(ERROR_LOG_PATH));
  EXPECT_EQ(ReadFile(ERROR_LOG_OLD_PATH), "run 2\n");

  // A start without a current log keeps the previous one.
  InitBpfServiceErrorLog();
  EXPECT_EQ(ReadFile(ERROR_LOG_OLD_PATH), "run 2\n");
}

TEST_F(ErrorLogTest, UnwritableLogIsReportedAndIgnored) {
  InitBpfServiceErrorLog();
  ASSERT_EQ(mkdir(ERROR_LOG_PATH, 0775), 0);
  kelo_test::LogCapture log;
  RecordBpfServiceErrorInfo(1, "lost");
  EXPECT_TRUE(log.contains(std::string("failed to read ") + ERROR_LOG_PATH + ", error: Is a directory"));
  EXPECT_TRUE(log.contains(std::string("failed to write ") + ERROR_LOG_PATH + ", error: Is a directory"));
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
