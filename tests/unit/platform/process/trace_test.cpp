#include "platform/process/trace.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/own_root.h"

namespace {

constexpr const char* kFile = "/etc/proxymanagerd/trace.conf";

void write(const std::string& text) {
  std::filesystem::create_directories("/etc/proxymanagerd");
  std::ofstream(kFile) << text;
}

struct Parsed {
  TraceValues values;
  std::vector<std::pair<int, std::string>> bad;
};

Parsed parse(const std::string& text) {
  Parsed parsed;
  parsed.values = process::parseTraceValues(
      text, [&](int number, std::string_view line) { parsed.bad.emplace_back(number, line); });
  return parsed;
}

TEST(TraceValues, OfAnEmptyTextAreTheDefaults) {
  EXPECT_EQ(parse("").values, (TraceValues{6, 0, 0, 0, 0}));
  EXPECT_TRUE(parse("").bad.empty());
}

TEST(TraceValues, TakeAllFiveKeysInAnyOrderWithBlanksAndComments) {
  const auto parsed = parse(
      "# how much is said\r\n data = -5 \n\n\tbaseseverity=3\noption=0x1F\npersistent=1\n"
      "  # more\ntracemask=0xffffffff");
  EXPECT_EQ(parsed.values, (TraceValues{3, 1, -1, 31, -5}));
  EXPECT_TRUE(parsed.bad.empty());
}

TEST(TraceValues, OfTwoLinesWithOneKeyTheLaterCounts) {
  EXPECT_EQ(parse("data=1\ndata=2\n").values.data, 2);
}

TEST(TraceValues, SeverityIsTakenFrom0To7AndRefusedBeyond) {
  EXPECT_EQ(parse("baseseverity=0").values.baseseverity, 0);
  EXPECT_EQ(parse("baseseverity=7").values.baseseverity, 7);
  for (const char* line : {"baseseverity=-1", "baseseverity=8"}) {
    const auto parsed = parse(line);
    EXPECT_EQ(parsed.values.baseseverity, 6) << line;
    EXPECT_EQ(parsed.bad.size(), 1u) << line;
  }
}

TEST(TraceValues, AreTakenToTheEndsOf32BitsAndRefusedBeyond) {
  EXPECT_EQ(parse("data=2147483647").values.data, 2147483647);
  EXPECT_EQ(parse("data=-2147483648").values.data, -2147483647 - 1);
  EXPECT_EQ(parse("data=0x80000000").values.data, -2147483647 - 1);
  for (const char* line : {"data=2147483648", "data=-2147483649", "data=0x100000000"}) {
    EXPECT_EQ(parse(line).values.data, 0) << line;
    EXPECT_EQ(parse(line).bad.size(), 1u) << line;
  }
}

TEST(TraceValues, LinesOfAnotherFormChangeNothingAndAreNamedWithTheirNumbers) {
  const auto parsed = parse(
      "data\n=3\ndata=\ndata=3 "
      "4\ndata=0x\ndata=3x\ndata=0x-1\nunknown=3\nData=3\ndata==3\ndata=3.0");
  EXPECT_EQ(parsed.values, TraceValues{});
  ASSERT_EQ(parsed.bad.size(), 11u);
  EXPECT_EQ(parsed.bad.front(), (std::pair<int, std::string>(1, "data")));
  EXPECT_EQ(parsed.bad.back(), (std::pair<int, std::string>(11, "data=3.0")));
}

TEST(TraceValues, ABadLineDoesNotHideTheNextOne) {
  const auto parsed = parse("nonsense\nbaseseverity=4\n");
  EXPECT_EQ(parsed.values.baseseverity, 4);
  EXPECT_EQ(parsed.bad.size(), 1u);
}

TEST(TraceValues, AnyBytesAreBorne) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  EXPECT_EQ(parse(bytes + "\n" + bytes + "=1").values, TraceValues{});
}

TEST(TraceFile, OfNobodyMeansTheDefaultsAndMasksDebugLines) {
  enterOwnRoot();
  TraceValues record{1, 1, 1, 1, 1};
  EXPECT_EQ(settrcvalues("proxymanagerd", &record), 0);
  EXPECT_EQ(record, (TraceValues{6, 0, 0, 0, 0}));
  EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_INFO));
  EXPECT_TRUE(logLines().empty());
}

TEST(TraceFile, SetsTheRecordAndTheMask) {
  enterOwnRoot();
  for (const int severity : {0, 7}) {
    write("baseseverity=" + std::to_string(severity) + "\ntracemask=0xABCDE\n");
    TraceValues record;
    EXPECT_EQ(settrcvalues("proxymanagerd", &record), 0);
    EXPECT_EQ(record, (TraceValues{severity, 0, 0xABCDE, 0, 0}));
    EXPECT_EQ(setlogmask(0), LOG_UPTO(severity));
  }
}

TEST(TraceFile, ReadAgainWithoutARecordSetsTheMaskAlone) {
  enterOwnRoot();
  write("baseseverity=3\n");
  EXPECT_EQ(settrcvalues("proxymanagerd", nullptr), 0);
  EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_ERR));
  std::filesystem::remove(kFile);
  EXPECT_EQ(settrcvalues("proxymanagerd", nullptr), 0);
  EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_INFO));
}

TEST(TraceFile, BadLinesAreNamedAtStartUpOnceAndNeverWhenReadAgain) {
  enterOwnRoot();
  // The severity in this file would mask the log lines that report its mistakes.
  write("baseseverity=2\nbaseseverity=8\n");
  TraceValues record;
  EXPECT_EQ(settrcvalues("proxymanagerd", &record), 0);
  EXPECT_EQ(settrcvalues("proxymanagerd", nullptr), 0);
  setlogmask(LOG_UPTO(LOG_DEBUG));
  EXPECT_EQ(settrcvalues("proxymanagerd", nullptr), 0);
  EXPECT_EQ(
      logLines(),
      (std::vector<LogLine>{
          {LOG_WARNING,
           "process: /etc/proxymanagerd/trace.conf line 2 is not understood: baseseverity=8"}}));
}

TEST(TraceFile, ALongBadLineIsShownInPart) {
  enterOwnRoot();
  write(std::string(500, 'x'));
  TraceValues record;
  EXPECT_EQ(settrcvalues("proxymanagerd", &record), 0);
  EXPECT_TRUE(logged(
      LOG_WARNING,
      "process: /etc/proxymanagerd/trace.conf line 1 is not understood: " + std::string(64, 'x')));
}

TEST(TraceFile, IsReadAtItsLargestAndRefusedOneByteBeyond) {
  enterOwnRoot();
  const std::string line = "baseseverity=4\n#";
  write(line + std::string(process::kTraceFileLimit - line.size(), '-'));
  TraceValues record;
  EXPECT_EQ(settrcvalues("proxymanagerd", &record), 0);
  EXPECT_EQ(record.baseseverity, 4);

  write(line + std::string(process::kTraceFileLimit + 1 - line.size(), '-'));
  EXPECT_EQ(settrcvalues("proxymanagerd", &record), -1);
  EXPECT_EQ(record, TraceValues{});
  EXPECT_TRUE(logged(LOG_ERR,
                     "process: cannot read /etc/proxymanagerd/trace.conf: larger than 4096 bytes"));
  EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_WARNING)) << "the mask of before";
}

TEST(TraceFile, AFifoIsNotWaitedFor) {
  enterOwnRoot();
  std::filesystem::create_directories("/etc/proxymanagerd");
  ASSERT_EQ(mkfifo(kFile, 0600), 0);
  TraceValues record;
  EXPECT_EQ(settrcvalues("proxymanagerd", &record), -1);
  EXPECT_EQ(settrcvalues("proxymanagerd", nullptr), -1);
  EXPECT_EQ(
      countLog(LOG_ERR, "process: cannot read /etc/proxymanagerd/trace.conf: not a regular file"),
      1);
}

TEST(TraceFile, ALinkInACircleIsAFailure) {
  enterOwnRoot();
  std::filesystem::create_directories("/etc/proxymanagerd");
  std::filesystem::create_symlink(kFile, kFile);
  TraceValues record;
  EXPECT_EQ(settrcvalues("proxymanagerd", &record), -1);
  EXPECT_TRUE(logged(LOG_ERR,
                     "process: cannot read /etc/proxymanagerd/trace.conf: Too many levels of "
                     "symbolic links"));
}

TEST(TraceFile, NamesThatLeaveTheFolderAreRefused) {
  TraceValues record;
  EXPECT_EQ(settrcvalues("../tmp", &record), -1);
  EXPECT_EQ(settrcvalues(nullptr, &record), -1);
  EXPECT_TRUE(logged(LOG_ERR, "process: cannot read /etc/../tmp/trace.conf: not a daemon's name"));
}

}  // namespace
