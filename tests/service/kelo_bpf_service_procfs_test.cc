// The process-file parsers as the kernel's lines can make them: names that
// hold blanks and parentheses, lines cut short, values that are not
// numbers. None of them may throw; what cannot be read counts as absent.
#include "service/kelo_bpf_service_procfs.h"

#include <gtest/gtest.h>

#include <string>

namespace Kelo {
namespace Bpf {
namespace {

// A stat line with `name` in its parentheses, `threads` in field 19 and
// `start` in field 21; `fields` after the name (a whole line has 50).
std::string StatLine(const std::string& name, const std::string& threads, const std::string& start,
                     size_t fields = 50) {
  std::string line = "4242 (" + name + ")";
  for (size_t field = 2; field < 2 + fields; ++field) {
    line += ' ';
    line += field == 19 ? threads : field == 21 ? start : std::to_string(field);
  }
  return line + "\n";
}

TEST(ProcFiles, StatFieldsAreCountedFromTheLastParenthesis) {
  struct Case {
    std::string name, threads, start;
    size_t fields;
    int64_t wantThreads, wantStart;
    bool complete;
  } cases[] = {
      {"sh", "7", "123456", 50, 7, 123456, true},
      // A name may hold what separates the fields.
      {"a) (b c", "12", "99", 50, 12, 99, true},
      {") 1 2 3 (", "3", "5", 50, 3, 5, true},
      // Not numbers: absent, the rest of the line still counts.
      {"sh", "x7", "12ab", 50, 0, 12, true},
      // Cut short before the start time: the threads are kept, the line is
      // incomplete.
      {"sh", "9", "1", 19, 9, 0, false},
  };
  for (const Case& c : cases) {
    const ProcStat stat = ParseProcStat(StatLine(c.name, c.threads, c.start, c.fields));
    EXPECT_EQ(stat.threads, c.wantThreads) << c.name << " / " << c.threads;
    EXPECT_EQ(stat.startTicks, c.wantStart) << c.name << " / " << c.start;
    EXPECT_EQ(stat.complete, c.complete) << c.name << " / " << c.fields;
  }
  EXPECT_FALSE(ParseProcStat("4242 sh 7 8 9").complete) << "no parenthesis";
  EXPECT_FALSE(ParseProcStat("").complete);
}

TEST(ProcFiles, DecimalsAreReadAsStrtollWithoutExceptions) {
  EXPECT_EQ(ParseDecimal("  1024 kB"), 1024);
  EXPECT_EQ(ParseDecimal("\t1000\t1000\t1000\t1000"), 1000) << "the first of the uids";
  EXPECT_EQ(ParseDecimal("-5"), -5);
  EXPECT_EQ(ParseDecimal("+5"), 5);
  EXPECT_EQ(ParseDecimal("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(ParseDecimal("-9223372036854775808"), INT64_MIN);
  for (const char* absent : {"", " ", "kB", "-", "x12", "9223372036854775808", "99999999999999999999"}) {
    EXPECT_EQ(ParseDecimal(absent), std::nullopt) << '"' << absent << '"';
  }
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
