// Trace server: the line format (quoting, null strings, unknown types), the
// history bound, and real clients on the trace socket of a scratch root:
// replay order, live lines, and a client that goes away.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "DeliveryLogSink.h"
#include "TevdTestSupport.h"
#include "tevdTrace.h"
#include "tevdTraceListeners.h"

namespace {

// A swizzled block written by hand: slots first, string bytes after.
class Block {
 public:
  Block &Slot(uint32_t type, uint32_t length, uint64_t value) {
    uint8_t s[16];
    memcpy(s, &type, 4);
    memcpy(s + 4, &length, 4);
    memcpy(s + 8, &value, 8);
    slots_.insert(slots_.end(), s, s + 16);
    count_++;
    return *this;
  }
  Block &Int(uint32_t type, uint64_t bits) { return Slot(type, 0, bits); }
  // The offset is fixed up in Bytes() once the number of slots is known.
  Block &Str(const std::string &s) {
    strOffsets_.push_back({count_, strings_.size()});
    strings_.insert(strings_.end(), s.begin(), s.end());
    strings_.push_back(0);
    return Slot(6, static_cast<uint32_t>(s.size()), 0);
  }
  Block &NullStr() { return Slot(6, 0xFFFFFFFFu, 0); }
  std::vector<uint8_t> Bytes() const {
    std::vector<uint8_t> out = slots_;
    for (const auto &fix : strOffsets_) {
      uint64_t off = slots_.size() + fix.second;
      memcpy(&out[16 * fix.first + 8], &off, 8);
    }
    out.insert(out.end(), strings_.begin(), strings_.end());
    return out;
  }
  int count() const { return count_; }

 private:
  std::vector<uint8_t> slots_;
  std::vector<uint8_t> strings_;
  std::vector<std::pair<int, size_t>> strOffsets_;
  int count_ = 0;
};

void Record(const char *dir, uint64_t stamp, const char *id, const Block &b) {
  std::vector<uint8_t> bytes = b.Bytes();
  TevdTrace_Record(dir, stamp, id, bytes.data(), bytes.size(), b.count());
}

class TevdTraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdTrace_ResetForTest();
    clock_.AdvanceUs(5);   // 1700000000.000005000
  }
  void TearDown() override { TevdTrace_ResetForTest(); }
  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
};

TEST_F(TevdTraceTest, LineCarriesTimeDirectionStampIdentifierAndTypedArguments) {
  Record("IN", 42, "tev.net.x.y",
         Block().Int(1, 0xFFFFFFFFFFFFFFFDull).Int(3, 7).Int(2, 0xFFFFFFFFFFFFFFFBull)
             .Int(4, 18446744073709551615ull).Str("hwnic0"));
  EXPECT_EQ(std::vector<std::string>(
                {"1700000000.000005000,IN,42,tev.net.x.y,,-3,7,-5,18446744073709551615,"
                 "\"hwnic0\"\n"}),
            TevdTrace_HistoryForTest());
}

TEST_F(TevdTraceTest, EventWithoutArgumentsEndsWithOneComma) {
  Record("OUT", 1, "kos.audit.a", Block());
  EXPECT_EQ(std::vector<std::string>({"1700000000.000005000,OUT,1,kos.audit.a,\n"}),
            TevdTrace_HistoryForTest());
}

TEST_F(TevdTraceTest, QuotesInStringsAreDoubledAndNullPrintsAsNullInQuotes) {
  Record("OUT", 9, "kos.problem.q", Block().Str("say \"hi\"").NullStr().Str(""));
  EXPECT_EQ(std::vector<std::string>(
                {"1700000000.000005000,OUT,9,kos.problem.q,,\"say \"\"hi\"\"\",\"(null)\",\"\"\n"}),
            TevdTrace_HistoryForTest());
}

TEST_F(TevdTraceTest, UnknownArgumentTypesPrintAsQuestionMarks) {
  Record("IN", 3, "tev.a.b", Block().Int(0, 1).Int(5, 0x3ff0000000000000ull).Int(7, 2).Int(1, 8));
  EXPECT_EQ(std::vector<std::string>({"1700000000.000005000,IN,3,tev.a.b,,???,???,???,8\n"}),
            TevdTrace_HistoryForTest());
}

TEST_F(TevdTraceTest, UnreadableStringDiscardsRecordWithLogLine) {
  delivery::LogSink log(root_);
  ASSERT_TRUE(log.ok());
  // One string slot whose offset points far outside the block.
  Block bad;
  bad.Slot(6, 4, 5000);
  Record("IN", 3, "tev.bad.one", bad);
  EXPECT_TRUE(TevdTrace_HistoryForTest().empty());
  EXPECT_EQ(std::vector<std::string>({"Invalid argument in tev with ID tev.bad.one"}), log.Take());
}

// Lines of exactly 1024 bytes: "1700000000.000005000,IN,0," is 26, then the
// identifier and ",\n".
std::string IdForKiB(char c) {
  return std::string(1024 - 28, c);
}

TEST_F(TevdTraceTest, HistoryKeepsNewest128KiBDroppingOldestLines) {
  for (int i = 0; i < 128; i++) {
    Record("IN", 0, IdForKiB(static_cast<char>('A' + i % 26)).c_str(), Block());
  }
  auto history = TevdTrace_HistoryForTest();
  ASSERT_EQ(128u, history.size());   // exactly 131072 bytes: nothing dropped
  EXPECT_EQ(1024u, history[0].size());
  Record("IN", 0, IdForKiB('z').c_str(), Block());
  history = TevdTrace_HistoryForTest();
  ASSERT_EQ(128u, history.size());
  EXPECT_EQ('B', history.front()[26]);   // the line of 'A' went first
  EXPECT_EQ('z', history.back()[26]);
}

TEST_F(TevdTraceTest, OversizedLineEmptiesOlderHistoryButStays) {
  Record("IN", 0, "tev.small.one", Block());
  Record("IN", 0, "tev.small.two", Block());
  std::string giant(200000, 'g');
  Record("IN", 0, giant.c_str(), Block());
  auto history = TevdTrace_HistoryForTest();
  ASSERT_EQ(1u, history.size());
  EXPECT_EQ(26u + giant.size() + 2u, history[0].size());
  Record("IN", 0, "tev.small.three", Block());
  history = TevdTrace_HistoryForTest();
  ASSERT_EQ(1u, history.size());
  EXPECT_EQ("1700000000.000005000,IN,0,tev.small.three,\n", history[0]);
}

TEST_F(TevdTraceTest, OpenRejectsPathOf108Bytes) {
  std::string longPath = "/tmp/" + std::string(103, 'p');   // 108 bytes, no room for NUL
  errno = 0;
  EXPECT_EQ(-1, TevdTrace_Open(longPath.c_str()));
  EXPECT_EQ(ENAMETOOLONG, errno);
}

// Clients of the trace socket.
class TevdTraceClientTest : public TevdTraceTest {
 protected:
  void SetUp() override {
    TevdTraceTest::SetUp();
    listenFd_ = TevdTrace_Open(nullptr);
    ASSERT_GE(listenFd_, 0) << strerror(errno);
  }
  void TearDown() override {
    close(listenFd_);
    EXPECT_TRUE(WaitForListeners(0));
    TevdTraceTest::TearDown();
  }
  int Connect() {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string path = root_.Abs("var/run/orlan/tevd-trace.sock");
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    EXPECT_EQ(0, connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr));
    TevdTrace_Accept(listenFd_);
    return fd;
  }
  // Reads until `n` lines have arrived (bounded by a generous time-out).
  static std::vector<std::string> ReadLines(int fd, size_t n) {
    std::vector<std::string> lines;
    std::string partial;
    while (lines.size() < n) {
      struct pollfd pfd = {fd, POLLIN, 0};
      if (poll(&pfd, 1, 10000) <= 0) {
        break;
      }
      char buf[4096];
      ssize_t got = read(fd, buf, sizeof buf);
      if (got <= 0) {
        break;
      }
      partial.append(buf, static_cast<size_t>(got));
      size_t nl;
      while ((nl = partial.find('\n')) != std::string::npos) {
        lines.push_back(partial.substr(0, nl + 1));
        partial.erase(0, nl + 1);
      }
    }
    return lines;
  }
  static bool WaitForListeners(size_t n) {
    for (int i = 0; i < 5000; i++) {
      if (TevdTrace_ListenerCountForTest() == n) {
        return true;
      }
      usleep(1000);
    }
    return false;
  }
  int listenFd_ = -1;
};

TEST_F(TevdTraceClientTest, ClientGetsHistoryThenBlankLineThenLiveLines) {
  Record("IN", 1, "tev.one.a", Block());
  Record("OUT", 2, "kos.problem.two", Block().Int(1, 2));
  Record("IN", 3, "tev.three.c", Block().Str("x"));
  int client = Connect();
  EXPECT_EQ(std::vector<std::string>({"1700000000.000005000,IN,1,tev.one.a,\n",
                                      "1700000000.000005000,OUT,2,kos.problem.two,,2\n",
                                      "1700000000.000005000,IN,3,tev.three.c,,\"x\"\n", "\n"}),
            ReadLines(client, 4));
  Record("OUT", 4, "kos.clear.four", Block());
  EXPECT_EQ(std::vector<std::string>({"1700000000.000005000,OUT,4,kos.clear.four,\n"}),
            ReadLines(client, 1));
  close(client);
}

TEST_F(TevdTraceClientTest, VanishedClientDoesNotDisturbAnother) {
  Record("IN", 1, "tev.before.a", Block());
  int a = Connect();
  int b = Connect();
  EXPECT_EQ(2u, ReadLines(a, 2).size());
  EXPECT_EQ(2u, ReadLines(b, 2).size());
  EXPECT_TRUE(WaitForListeners(2));
  close(a);
  EXPECT_TRUE(WaitForListeners(1));   // its writer ended and its entry is gone
  for (int i = 0; i < 50; i++) {
    Record("IN", static_cast<uint64_t>(i), "tev.after.b", Block());
  }
  auto lines = ReadLines(b, 50);
  ASSERT_EQ(50u, lines.size());
  EXPECT_EQ("1700000000.000005000,IN,49,tev.after.b,\n", lines[49]);
  close(b);
}

TEST_F(TevdTraceClientTest, ClientDataIsDiscardedAndReplayRepeatsPerClient) {
  Record("IN", 7, "tev.seen.twice", Block());
  int a = Connect();
  ASSERT_EQ(1, write(a, "junk", 4) == 4 ? 1 : 0);
  EXPECT_EQ(std::vector<std::string>({"1700000000.000005000,IN,7,tev.seen.twice,\n", "\n"}),
            ReadLines(a, 2));
  int b = Connect();
  EXPECT_EQ(std::vector<std::string>({"1700000000.000005000,IN,7,tev.seen.twice,\n", "\n"}),
            ReadLines(b, 2));
  close(a);
  close(b);
}

}  // namespace
