// Trace log: framing lines, appending, standard output, dumps and stamps.

#include "log_trace.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "support/fixtures.h"

using testsupport::read_file;

namespace {

const std::regex kStamp("[A-Z][a-z]{2} [A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4} ");

TEST(TraceLog, LinesAreStampedFramedAndAppended) {
  testsupport::TempDir dir;
  std::string path = dir.file("trace.log");
  testsupport::write_file(path, "earlier line\n");

  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(open_trace_log(path.c_str()), 0);
    EXPECT_EQ(dumpFp, tracelogfp);
    log_trace("recv_trap", "got %d octets from %s", 42, "hubd");
    close_trace_log();
    EXPECT_EQ(tracelogfp, nullptr);
    EXPECT_EQ(dumpFp, nullptr);
  }
  std::string log = read_file(path);
  ASSERT_EQ(log.rfind("earlier line\n", 0), 0u) << "existing log truncated";
  std::string rest = log.substr(13);
  std::regex line_shape(std::string("([A-Z][a-z]{2} [A-Z][a-z]{2} [0-9]{2} [0-9:]{8} [0-9]{4} ") +
                        "(Tracing Started|Tracing Stopped|recv_trap: got 42 octets from hubd)\n)*");
  EXPECT_TRUE(std::regex_match(rest, line_shape)) << rest;
  EXPECT_EQ(std::count(rest.begin(), rest.end(), '\n'), 6);
  EXPECT_NE(rest.find("Tracing Started\n"), std::string::npos);
}

TEST(TraceLog, SecondOpenKeepsTheFirstStream) {
  testsupport::TempDir dir;
  ASSERT_EQ(open_trace_log(dir.file("first").c_str()), 0);
  ASSERT_EQ(open_trace_log(dir.file("second").c_str()), 0);
  log_trace("x", "where");
  close_trace_log();
  EXPECT_NE(read_file(dir.file("first")).find("x: where\n"), std::string::npos);
  EXPECT_EQ(read_file(dir.file("second")), "");
}

TEST(TraceLog, UnopenableFileAndClosedLogWriteNothing) {
  EXPECT_EQ(open_trace_log("/nonexistent-dir/trace.log"), -1);
  EXPECT_EQ(open_trace_log(nullptr), -1);
  EXPECT_EQ(tracelogfp, nullptr);
  testsupport::CapturedStream out(1);
  log_trace("x", "nothing");
  unsigned char data[4] = {1, 2, 3, 4};
  EXPECT_EQ(sigblockhexdump(data, 4), 0);
  close_trace_log();
  EXPECT_EQ(out.text(), "");
}

TEST(TraceLog, HyphenTracesToStandardOutputWithoutClosingIt) {
  std::string written;
  {
    testsupport::CapturedStream out(1);
    ASSERT_EQ(open_trace_log("-"), 0);
    EXPECT_EQ(tracelogfp, stdout);
    log_trace("demo", "on stdout");
    close_trace_log();
    fputs("still open\n", stdout);
    written = out.text();
  }
  EXPECT_NE(written.find("Tracing Started\n"), std::string::npos);
  EXPECT_NE(written.find("demo: on stdout\n"), std::string::npos);
  EXPECT_NE(written.find("Tracing Stopped\n"), std::string::npos);
  EXPECT_NE(written.find("still open\n"), std::string::npos);
}

TEST(TraceLog, HexDumpRowsAndPadding) {
  testsupport::TempDir dir;
  std::string path = dir.file("dump.log");
  traceStartingAndStopping = 0;
  ASSERT_EQ(open_trace_log(path.c_str()), 0);
  unsigned char data[17];
  for (int i = 0; i < 17; ++i) data[i] = static_cast<unsigned char>(i == 3 ? 'a' : i);
  sigblockhexdump(data, 16);
  sigblockhexdump(data, 17);
  close_trace_log();
  traceStartingAndStopping = 1;
  const std::string row =
      "   0:   0  1  2 61  4  5  6  7  8  9  a  b  c  d  e  f  ...a............\n";
  EXPECT_EQ(read_file(path), row + row +
                                 "  16:  10 -- -- -- -- -- -- -- -- -- -- -- -- -- -- --  "
                                 "................\n");
}

TEST(TraceLog, StampIsAlways24CharactersAndABlank) {
  testsupport::TempDir dir;
  std::string path = dir.file("stamp.log");
  traceStartingAndStopping = 0;
  for (const char *locale : {"C", "C.UTF-8"}) {
    setenv("LC_ALL", locale, 1);
    ASSERT_EQ(open_trace_log(path.c_str()), 0);
    printTime();
    fputs("|\n", tracelogfp);
    close_trace_log();
  }
  traceStartingAndStopping = 1;
  std::string log = read_file(path);
  size_t start = 0;
  for (int line = 0; line < 2; ++line) {
    size_t end = log.find('\n', start);
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(end - start, 26u);
    EXPECT_TRUE(std::regex_match(log.substr(start, 25), kStamp)) << log.substr(start, 25);
    start = end + 1;
  }
}

TEST(EventLogger, WritesRoutineAndMessageOnStandardError) {
  testsupport::CapturedStream err(2);
  logger(1, "snmp_parse_trap", "bad %s", "thing");
  logger(0, "silent", "never");
  EXPECT_EQ(err.text(), "snmp_parse_trap: bad thing\n");
}

TEST(TraceLog, BerDumpPutsOffsetsOnStandardOutput) {
  testsupport::TempDir dir;
  std::string path = dir.file("dump");
  unsigned char data[20];
  for (int i = 0; i < 20; ++i) data[i] = static_cast<unsigned char>('A' + i);
  data[1] = 0x07;
  dumpFp = fopen(path.c_str(), "w");
  std::string offsets;
  {
    testsupport::CapturedStream out(1);
    hexdumpEMS(data, 20);
    offsets = out.text();
  }
  fclose(dumpFp);
  dumpFp = nullptr;
  EXPECT_EQ(offsets, "     0:      16:  ");
  EXPECT_EQ(testsupport::read_file(path),
            "41 07 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50     A.CDEFGHIJKLMNOP\n"
            "51 52 53 54 -- -- -- -- -- -- -- -- -- -- -- --     QRST............\n");
}

}  // namespace
