// Reading observation contexts: records packed back to back, the 27 rule,
// malformed records dropped and logged, user connections and their close.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "PlatformSocket.h"
#include "TevLib.h"
#include "TevRecord.h"
#include "TevdTestSupport.h"

namespace {

using namespace tevdtest;

std::vector<uint8_t> Good(const std::string &id, const std::string &arg = "x") {
  return TevRecord_Encode(id, "message", 42, {S(arg), I(1)});
}

std::vector<uint8_t> Bad(const std::string &message = "message") {
  std::vector<uint8_t> r = TevRecord_Encode("tev.net.bad", message, 1, {});
  r[0] = 'X';
  return r;
}

// Reads `fd` with a buffer of `size` bytes: the status, and "id/arg0" of each
// record found, which must lie back to back and decode.
int ReadIds(int fd, size_t size, std::vector<std::string> *ids) {
  std::vector<uint8_t> buf(size + 1);
  size_t length = 12345;
  int rc = TevLib_ReadFromFd(fd, buf.data(), size, &length);
  ids->clear();
  EXPECT_TRUE(rc == 0 || length == 0) << "length " << length << " with status " << rc;
  for (size_t off = 0; rc == 0 && off < length;) {
    uint32_t recLen;
    memcpy(&recLen, buf.data() + off + 16, sizeof recLen);
    TevRecordView v;
    EXPECT_TRUE(off + recLen <= length && TevRecord_Decode(buf.data() + off, recLen, &v)) << off;
    ids->push_back(v.id + "/" + (v.args.empty() ? "" : v.args[0].str));
    off += recLen;
  }
  return rc;
}

using Ids = std::vector<std::string>;

class TevLibRead : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, TevLib_AsyncContextOpen(3, &handle_));
    ASSERT_EQ(0, TevLib_HandleToFd(handle_, &fd_));
  }
  void TearDown() override { EXPECT_EQ(0, TevLib_Close(handle_)); }
  void Post(const std::vector<std::vector<uint8_t>> &records) {
    for (const auto &r : records) ASSERT_EQ(0, TevRecord_Post(3, r));
  }
  Ids Read(size_t size, int want = 0) {
    Ids ids;
    EXPECT_EQ(want, ReadIds(fd_, size, &ids));
    return ids;
  }
  ScratchRoot root_;
  TevLib_Handle handle_ = nullptr;
  int fd_ = -1;
};

TEST_F(TevLibRead, WaitingRecordsArePackedBackToBackAndWhatDoesNotFitWaits) {
  EXPECT_EQ(Ids{}, Read(8192));
  Post({Good("tev.net.a", "one"), Good("tev.net.b", "two"), Good("tev.net.c", "three")});
  EXPECT_EQ((Ids{"tev.net.a/one", "tev.net.b/two", "tev.net.c/three"}), Read(8192));
  std::vector<uint8_t> rec = Good("tev.net.p");
  Post({rec, rec, rec});
  EXPECT_EQ(2u, Read(rec.size() * 2 + rec.size() / 2).size());
  EXPECT_EQ(1u, Read(8192).size());
}

TEST_F(TevLibRead, RecordThatDoesNotFitReturns27AndStaysNextUntilAReset) {
  std::vector<uint8_t> small = Good("tev.net.s");
  std::vector<uint8_t> big = Good("tev.net.b", std::string(500, 'b'));
  Post({big});
  Read(big.size() - 1, 27);
  EXPECT_EQ(1u, Read(big.size()).size());
  Post({small, big, small});
  EXPECT_EQ(1u, Read(small.size() + 10).size());
  EXPECT_TRUE(TevLib_HasPending(fd_));
  Read(small.size() + 10, 27);
  Read(small.size() + 10, 27);  // still there, still first
  EXPECT_EQ((Ids{"tev.net.b/" + std::string(500, 'b'), "tev.net.s/x"}),
            Read(big.size() + small.size()));
  EXPECT_FALSE(TevLib_HasPending(fd_));
  // A reset discards records taken ahead and those still queued.
  Post({small, small, small});
  ASSERT_EQ(1u, Read(small.size()).size());
  ASSERT_TRUE(TevLib_HasPending(fd_));
  Post({small});
  ASSERT_EQ(0, TevLib_Reset(handle_));
  EXPECT_FALSE(TevLib_HasPending(fd_));
  EXPECT_EQ(Ids{}, Read(8192));
}

// A context is read several datagrams at a time; what the caller's buffer
// cannot take waits in the library, in order, and malformed ones are dropped.
TEST_F(TevLibRead, RecordsTakenAheadComeOutInOrderWithMalformedOnesDropped) {
  const int kRecords = 7;  // with 2 bad ones under the kernel's queue of 10: no sender waits
  Ids want;
  size_t recSize = Good("tev.net.seq", "0").size();
  for (int i = 0; i < kRecords; i++) {
    Post({Good("tev.net.seq", std::to_string(i))});
    want.push_back("tev.net.seq/" + std::to_string(i));
    if (i % 3 == 1) Post({Bad()});
  }
  uint64_t dropped = TevLib_MalformedCount();
  Ids got;
  bool sawPending = false;
  for (int reads = 0; reads < kRecords + 2; reads++) {
    Ids ids = Read(recSize * 2);
    if (ids.empty()) break;
    EXPECT_LE(ids.size(), 2u);
    sawPending = sawPending || TevLib_HasPending(fd_);
    got.insert(got.end(), ids.begin(), ids.end());
  }
  EXPECT_EQ(want, got);
  EXPECT_TRUE(sawPending);
  EXPECT_FALSE(TevLib_HasPending(fd_));
  EXPECT_EQ(dropped + kRecords / 3, TevLib_MalformedCount());
  // A malformed record larger than the buffer is dropped, not reported as 27.
  Post({Bad(std::string(300, 'm')), Good("tev.net.good")});
  EXPECT_EQ(Ids{"tev.net.good/x"}, Read(Good("tev.net.good").size()));
}

TEST_F(TevLibRead, DropDiagnosticNamesTheContextAtMostOncePerSecond) {
  FakeClock clock;
  PlatformListen how{SOCK_DGRAM, SOCK_NONBLOCK};
  int log = PlatformSocket_Listen(
      PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::LogCollector), how);
  ASSERT_GE(log, 0) << strerror(errno);
  auto dropAndTakeLines = [&](int records) {
    for (int i = 0; i < records; i++) Post({Bad()});
    Read(8192);
    Ids lines;
    char line[1024];
    for (ssize_t n; (n = recv(log, line, sizeof line, 0)) > 0;)
      lines.emplace_back(line, static_cast<size_t>(n));
    return lines;
  };
  // Drops of the same clock second (including any left by an earlier test) log once.
  ASSERT_LE(dropAndTakeLines(3).size(), 1u);
  clock.Advance(1);
  Ids lines = dropAndTakeLines(3);
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(Contains(lines[0], "async-03"));
  EXPECT_EQ(0u, dropAndTakeLines(2).size());
  clock.Advance(1);
  EXPECT_EQ(1u, dropAndTakeLines(1).size());
  close(log);
}

// Garbage and half records on a served connection: UserFaultsE2E.
TEST(TevLibUser, ConnectionDeliversGoodRecordsDropsMalformedOnesThenReportsTheClose) {
  ScratchRoot root;
  TevLib_Handle user = nullptr;
  ASSERT_EQ(0, TevLib_UserContextOpen(22, &user));
  int client = PlatformSocket_Connect(
      PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::UserContext), SOCK_SEQPACKET);
  ASSERT_GE(client, 0) << strerror(errno);
  int cnx = -1;
  ASSERT_EQ(0, TevLib_UserContextNewCnx(user, &cnx));
  Ids ids;
  auto read = [&](size_t size) { return ReadIds(cnx, size, &ids); };
  std::vector<uint8_t> good = Good("tev.user.y", "u");
  uint64_t dropped = TevLib_MalformedCount();
  for (const auto &r : {Bad(), good, Bad(std::string(300, 'm')), good})
    ASSERT_EQ(static_cast<ssize_t>(r.size()), send(client, r.data(), r.size(), 0));
  EXPECT_EQ(27, read(good.size() - 1));  // after the first drop, nothing consumed
  for (int i = 0; i < 2; i++)            // the large malformed one between them does not block
    EXPECT_TRUE(read(good.size()) == 0 && ids == Ids{"tev.user.y/u"}) << i;
  EXPECT_EQ(dropped + 2, TevLib_MalformedCount());
  close(client);
  EXPECT_EQ(TEVLIB_ERR_CLOSED, read(256));
  EXPECT_EQ(0, TevLib_UserContextCloseCnx(cnx));
  EXPECT_EQ(0, TevLib_Close(user));
}

}  // namespace
