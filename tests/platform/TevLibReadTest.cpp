// Reading observation contexts: every waiting record packed back to back, the
// 27 rule (nothing consumed), partial batches, malformed records of every kind
// dropped without harming the next good one, user connections and their close.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "PlatformSocket.h"
#include "TevLib.h"
#include "TevdTestSupport.h"

namespace {

using tevdtest::I;
using tevdtest::S;

class TevLibRead : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, TevLib_AsyncContextOpen(3, &handle_));
    ASSERT_EQ(0, TevLib_HandleToFd(handle_, &fd_));
  }
  void TearDown() override {
    if (handle_ != nullptr) {
      EXPECT_EQ(0, TevLib_Close(handle_));
    }
  }
  // Reads with a buffer of `size` bytes; returns the records found in it.
  int Read(size_t size, std::vector<TevRecordView> *records) {
    std::vector<uint8_t> buf(size);
    size_t length = 12345;
    int rc = TevLib_ReadFromFd(fd_, buf.data(), buf.size(), &length);
    records->clear();
    if (rc != 0) {
      EXPECT_EQ(0u, length);
      return rc;
    }
    size_t off = 0;
    while (off < length) {
      uint32_t recLen;
      memcpy(&recLen, buf.data() + off + 16, sizeof recLen);
      TevRecordView view;
      EXPECT_TRUE(TevRecord_Decode(buf.data() + off, recLen, &view)) << "record at " << off;
      records->push_back(view);
      off += recLen;
    }
    EXPECT_EQ(length, off);
    return rc;
  }
  tevdtest::ScratchRoot root_;
  TevLib_Handle handle_ = nullptr;
  int fd_ = -1;
};

std::vector<uint8_t> Good(const std::string &id, const std::string &arg = "x") {
  return TevRecord_Encode(id, "message", 42, {S(arg), I(1)});
}

TEST_F(TevLibRead, OpenBindsTheSocketUnderTheRootAndNamesTheContext) {
  struct stat st;
  std::string path = PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::AsyncContext, 3);
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  char name[TEVLIB_NAME_MAX];
  ASSERT_EQ(0, TevLib_HandleToName(handle_, name));
  EXPECT_STREQ("async-03", name);
  TevLib_Handle other = nullptr;
  EXPECT_EQ(22, TevLib_AsyncContextOpen(22, &other));
  EXPECT_EQ(nullptr, other);
}

TEST_F(TevLibRead, NothingWaitingGivesStatusZeroAndLengthZero) {
  std::vector<TevRecordView> recs;
  EXPECT_EQ(0, Read(8192, &recs));
  EXPECT_TRUE(recs.empty());
}

TEST_F(TevLibRead, AllWaitingRecordsArePackedBackToBack) {
  ASSERT_EQ(0, TevRecord_Post(3, Good("tev.net.a", "one")));
  ASSERT_EQ(0, TevRecord_Post(3, Good("tev.net.b", "two")));
  ASSERT_EQ(0, TevRecord_Post(3, Good("tev.net.c", "three")));
  std::vector<TevRecordView> recs;
  ASSERT_EQ(0, Read(8192, &recs));
  ASSERT_EQ(3u, recs.size());
  EXPECT_EQ("tev.net.a", recs[0].id);
  EXPECT_EQ("tev.net.c", recs[2].id);
  EXPECT_EQ("three", recs[2].args[0].str);
  EXPECT_EQ(0, Read(8192, &recs));
  EXPECT_TRUE(recs.empty());
}

TEST_F(TevLibRead, FirstRecordTooBigReturns27AndConsumesNothing) {
  std::vector<uint8_t> rec = Good("tev.net.big", std::string(200, 'b'));
  ASSERT_EQ(0, TevRecord_Post(3, rec));
  std::vector<TevRecordView> recs;
  EXPECT_EQ(27, Read(rec.size() - 1, &recs));
  EXPECT_EQ(27, Read(rec.size() - 1, &recs));
  ASSERT_EQ(0, Read(rec.size(), &recs));
  ASSERT_EQ(1u, recs.size());
  EXPECT_EQ("tev.net.big", recs[0].id);
}

TEST_F(TevLibRead, LaterRecordThatDoesNotFitStaysPendingForTheNextRead) {
  std::vector<uint8_t> rec = Good("tev.net.p");
  for (int i = 0; i < 3; i++) ASSERT_EQ(0, TevRecord_Post(3, rec));
  std::vector<TevRecordView> recs;
  ASSERT_EQ(0, Read(rec.size() * 2 + rec.size() / 2, &recs));
  EXPECT_EQ(2u, recs.size());
  ASSERT_EQ(0, Read(8192, &recs));
  EXPECT_EQ(1u, recs.size());
}

TEST_F(TevLibRead, ResetDiscardsWhatIsPending) {
  ASSERT_EQ(0, TevRecord_Post(3, Good("tev.net.a")));
  ASSERT_EQ(0, TevRecord_Post(3, Good("tev.net.b")));
  ASSERT_EQ(0, TevLib_Reset(handle_));
  std::vector<TevRecordView> recs;
  ASSERT_EQ(0, Read(8192, &recs));
  EXPECT_TRUE(recs.empty());
}

// A context is read several datagrams at a time; what the caller's buffer
// cannot take waits in the library, in order, and is announced as pending.
TEST_F(TevLibRead, RecordsTakenAheadOfAFullBufferComeOutInOrderWithNoneLost) {
  const int kRecords = 7;  // with 2 bad ones under the kernel's queue of 10: no sender waits
  std::vector<uint8_t> bad = Good("tev.net.bad");
  bad[0] = 'X';
  size_t recSize = 0;
  for (int i = 0; i < kRecords; i++) {
    std::vector<uint8_t> rec = Good("tev.net.seq", std::to_string(i));
    recSize = rec.size();
    ASSERT_EQ(0, TevRecord_Post(3, rec));
    if (i % 3 == 1) {
      ASSERT_EQ(0, TevRecord_Post(3, bad));  // dropped between good ones
    }
  }
  uint64_t dropped = TevLib_DroppedRecords();
  std::vector<std::string> got;
  std::vector<TevRecordView> recs;
  bool sawPending = false;
  for (int reads = 0; reads < kRecords + 2; reads++) {
    ASSERT_EQ(0, Read(recSize * 2, &recs));
    if (recs.empty()) break;
    EXPECT_LE(recs.size(), 2u);
    sawPending = sawPending || TevLib_HasPending(fd_);
    for (const TevRecordView &r : recs) got.push_back(r.args[0].str);
  }
  ASSERT_EQ(static_cast<size_t>(kRecords), got.size());
  for (int i = 0; i < kRecords; i++) EXPECT_EQ(std::to_string(i), got[static_cast<size_t>(i)]);
  EXPECT_TRUE(sawPending);
  EXPECT_FALSE(TevLib_HasPending(fd_));
  EXPECT_EQ(dropped + kRecords / 3, TevLib_DroppedRecords());
}

TEST_F(TevLibRead, RecordTakenAheadThatDoesNotFitReturns27AndStaysNext) {
  std::vector<uint8_t> small = Good("tev.net.s");
  std::vector<uint8_t> big = Good("tev.net.b", std::string(500, 'b'));
  ASSERT_EQ(0, TevRecord_Post(3, small));
  ASSERT_EQ(0, TevRecord_Post(3, big));
  ASSERT_EQ(0, TevRecord_Post(3, small));
  std::vector<TevRecordView> recs;
  ASSERT_EQ(0, Read(small.size() + 10, &recs));
  ASSERT_EQ(1u, recs.size());
  EXPECT_TRUE(TevLib_HasPending(fd_));
  EXPECT_EQ(27, Read(small.size() + 10, &recs));
  EXPECT_EQ(27, Read(small.size() + 10, &recs));  // still there, still first
  ASSERT_EQ(0, Read(big.size() + small.size(), &recs));
  ASSERT_EQ(2u, recs.size());
  EXPECT_EQ("tev.net.b", recs[0].id);
  EXPECT_EQ("tev.net.s", recs[1].id);
  EXPECT_FALSE(TevLib_HasPending(fd_));
}

TEST_F(TevLibRead, ResetAlsoDiscardsRecordsTakenAhead) {
  std::vector<uint8_t> rec = Good("tev.net.r");
  for (int i = 0; i < 3; i++) ASSERT_EQ(0, TevRecord_Post(3, rec));
  std::vector<TevRecordView> recs;
  ASSERT_EQ(0, Read(rec.size(), &recs));
  ASSERT_TRUE(TevLib_HasPending(fd_));
  ASSERT_EQ(0, TevLib_Reset(handle_));
  EXPECT_FALSE(TevLib_HasPending(fd_));
  ASSERT_EQ(0, Read(8192, &recs));
  EXPECT_TRUE(recs.empty());
}

// ---- malformed records ---------------------------------------------------------

void Put32(std::vector<uint8_t> *r, size_t off, uint32_t v) { memcpy(r->data() + off, &v, 4); }

struct Fault {
  const char *name;
  void (*corrupt)(std::vector<uint8_t> *r);
};

// The base record: "tev.net.bad" (12 bytes with NUL) at 32, "message" at 44,
// argument block at 56: slot 0 string "x" (offset 32 in the block), slot 1 int.
const Fault kFaults[] = {
    {"BadMagic", [](std::vector<uint8_t> *r) { (*r)[3] = '2'; }},
    {"ReservedNotZero", [](std::vector<uint8_t> *r) { (*r)[5] = 1; }},
    {"LengthMismatchLonger",
     [](std::vector<uint8_t> *r) { Put32(r, 16, static_cast<uint32_t>(r->size() + 8)); }},
    {"LengthMismatchShorter",
     [](std::vector<uint8_t> *r) { Put32(r, 16, static_cast<uint32_t>(r->size() - 8)); }},
    {"ShorterThanHeader", [](std::vector<uint8_t> *r) { r->resize(20); }},
    {"EmptyDatagram", [](std::vector<uint8_t> *r) { r->clear(); }},
    {"IdentifierWithoutTevPrefix",
     [](std::vector<uint8_t> *r) { memcpy(r->data() + 32, "xev", 3); }},
    {"IdentifierRunsIntoMessage", [](std::vector<uint8_t> *r) { (*r)[43] = 'x'; }},
    {"MessageOffsetOutside", [](std::vector<uint8_t> *r) { Put32(r, 20, 5000); }},
    {"MessageOffsetInsideHeader", [](std::vector<uint8_t> *r) { Put32(r, 20, 8); }},
    {"MessageUnterminated", [](std::vector<uint8_t> *r) { memset(r->data() + 44, 'm', 12); }},
    {"ArgumentOffsetNotMultipleOf8", [](std::vector<uint8_t> *r) { Put32(r, 28, 52); }},
    {"ArgumentOffsetOutside", [](std::vector<uint8_t> *r) { Put32(r, 28, 4096); }},
    {"ArgumentCountTooLarge", [](std::vector<uint8_t> *r) { Put32(r, 24, 0x40000000); }},
    {"UnknownArgumentType", [](std::vector<uint8_t> *r) { Put32(r, 56 + 16, 9); }},
    {"StringOffsetOutside", [](std::vector<uint8_t> *r) { Put32(r, 56 + 8, 1000); }},
    {"StringLengthPastRecord", [](std::vector<uint8_t> *r) { Put32(r, 56 + 4, 77); }},
};

TEST_F(TevLibRead, MalformedRecordsAreDroppedAndTheNextGoodOneArrives) {
  for (const Fault &f : kFaults) {
    std::vector<uint8_t> bad = TevRecord_Encode("tev.net.bad", "message", 1, {S("x"), I(2)});
    uint32_t argOff;
    memcpy(&argOff, bad.data() + 28, sizeof argOff);
    ASSERT_EQ(56u, argOff) << "base layout changed";
    f.corrupt(&bad);
    ASSERT_FALSE(TevRecord_IsWellFormed(bad.data(), bad.size())) << f.name;
    uint64_t before = TevLib_DroppedRecords();
    ASSERT_EQ(0, TevRecord_Post(3, bad)) << f.name;
    ASSERT_EQ(0, TevRecord_Post(3, Good("tev.net.good", f.name))) << f.name;
    std::vector<TevRecordView> recs;
    ASSERT_EQ(0, Read(8192, &recs)) << f.name;
    ASSERT_EQ(1u, recs.size()) << f.name;
    EXPECT_EQ("tev.net.good", recs[0].id) << f.name;
    EXPECT_EQ(f.name, recs[0].args[0].str);
    EXPECT_EQ(before + 1, TevLib_DroppedRecords()) << f.name;
  }
}

TEST_F(TevLibRead, MalformedRecordLargerThanTheBufferIsDroppedNot27) {
  std::vector<uint8_t> bad = TevRecord_Encode("tev.net.bad", std::string(300, 'm'), 1, {});
  bad[0] = 'X';
  std::vector<uint8_t> good = Good("tev.net.good");
  ASSERT_EQ(0, TevRecord_Post(3, bad));
  ASSERT_EQ(0, TevRecord_Post(3, good));
  std::vector<TevRecordView> recs;
  ASSERT_EQ(0, Read(good.size(), &recs));
  ASSERT_EQ(1u, recs.size());
  EXPECT_EQ("tev.net.good", recs[0].id);
}

TEST_F(TevLibRead, DropDiagnosticNamesTheContextAtMostOncePerSecond) {
  tevdtest::FakeClock clock;
  PlatformListen how;
  how.type = SOCK_DGRAM;
  how.flags = SOCK_NONBLOCK;
  int log = PlatformSocket_Listen(
      PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::LogCollector), how);
  ASSERT_GE(log, 0) << strerror(errno);
  std::vector<uint8_t> bad = Good("tev.net.bad");
  bad[0] = 'X';
  auto dropAndCountLines = [&](int records) {
    for (int i = 0; i < records; i++) EXPECT_EQ(0, TevRecord_Post(3, bad));
    std::vector<TevRecordView> recs;
    EXPECT_EQ(0, Read(8192, &recs));
    std::vector<std::string> lines;
    char line[1024];
    ssize_t n;
    while ((n = recv(log, line, sizeof line, 0)) > 0)
      lines.emplace_back(line, static_cast<size_t>(n));
    return lines;
  };
  // Drops of the same clock second (including any left by an earlier test) log once.
  std::vector<std::string> lines = dropAndCountLines(3);
  ASSERT_LE(lines.size(), 1u);
  clock.Advance(1);
  lines = dropAndCountLines(3);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(0u, lines[0].find("<14>")) << lines[0];
  EXPECT_NE(std::string::npos, lines[0].find(" tevd: ")) << lines[0];
  EXPECT_NE(std::string::npos, lines[0].find("async-03")) << lines[0];
  EXPECT_NE(std::string::npos, lines[0].find("bad magic")) << lines[0];
  EXPECT_EQ(0u, dropAndCountLines(2).size());
  clock.Advance(1);
  EXPECT_EQ(1u, dropAndCountLines(1).size());
  close(log);
}

// ---- user-level context --------------------------------------------------------

TEST(TevLibUser, ConnectionDeliversItsRecordsThenReportsTheClose) {
  tevdtest::ScratchRoot root;
  TevLib_Handle user = nullptr;
  ASSERT_EQ(0, TevLib_UserContextOpen(22, &user));
  char name[TEVLIB_NAME_MAX];
  ASSERT_EQ(0, TevLib_HandleToName(user, name));
  EXPECT_STREQ("user", name);
  struct stat st;
  std::string path = PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::UserContext);
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_TRUE(S_ISSOCK(st.st_mode));

  std::vector<uint8_t> rec = Good("tev.user.test.test0", "u");
  ASSERT_EQ(0, TevRecord_Post(22, rec));
  int cnx = -1;
  ASSERT_EQ(0, TevLib_UserContextNewCnx(user, &cnx));
  std::vector<uint8_t> buf(8192);
  size_t length = 0;
  // The first pending message does not fit: nothing is consumed.
  EXPECT_EQ(27, TevLib_ReadFromFd(cnx, buf.data(), rec.size() - 1, &length));
  ASSERT_EQ(0, TevLib_ReadFromFd(cnx, buf.data(), buf.size(), &length));
  ASSERT_EQ(rec.size(), length);
  EXPECT_EQ(0, memcmp(rec.data(), buf.data(), rec.size()));
  EXPECT_EQ(TEVLIB_ERR_CLOSED, TevLib_ReadFromFd(cnx, buf.data(), buf.size(), &length));
  EXPECT_EQ(0u, length);
  EXPECT_EQ(0, TevLib_UserContextCloseCnx(cnx));
  EXPECT_GT(0, TevLib_UserContextCloseCnx(-1));
  EXPECT_EQ(0, TevLib_Close(user));
}

TEST(TevLibUser, OpenConnectionWithNothingWaitingGivesLengthZero) {
  tevdtest::ScratchRoot root;
  TevLib_Handle user = nullptr;
  ASSERT_EQ(0, TevLib_UserContextOpen(22, &user));
  int client = PlatformSocket_Connect(
      PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::UserContext), SOCK_SEQPACKET);
  ASSERT_GE(client, 0) << strerror(errno);
  int cnx = -1;
  ASSERT_EQ(0, TevLib_UserContextNewCnx(user, &cnx));
  uint8_t buf[256];
  size_t length = 99;
  EXPECT_EQ(0, TevLib_ReadFromFd(cnx, buf, sizeof buf, &length));
  EXPECT_EQ(0u, length);
  // A malformed message on a connection is dropped like a malformed datagram.
  std::vector<uint8_t> bad = Good("tev.user.x");
  bad[1] = 'X';
  std::vector<uint8_t> good = Good("tev.user.y");
  ASSERT_EQ(static_cast<ssize_t>(bad.size()), send(client, bad.data(), bad.size(), 0));
  ASSERT_EQ(static_cast<ssize_t>(good.size()), send(client, good.data(), good.size(), 0));
  ASSERT_EQ(0, TevLib_ReadFromFd(cnx, buf, sizeof buf, &length));
  EXPECT_EQ(good.size(), length);
  close(client);
  EXPECT_EQ(TEVLIB_ERR_CLOSED, TevLib_ReadFromFd(cnx, buf, sizeof buf, &length));
  EXPECT_EQ(0, TevLib_UserContextCloseCnx(cnx));
  EXPECT_EQ(0, TevLib_Close(user));
}

}  // namespace
