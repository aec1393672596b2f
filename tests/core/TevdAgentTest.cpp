#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <poll.h>

#include <cstring>
#include <thread>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdAgent.h"
#include "tevdLog.h"

using namespace tevdtest;

namespace {

std::vector<uint8_t> Record(const std::string &id, const std::vector<MsgFmt_Value> &args = {}) {
  return TevRecord_Encode(id, "msg of " + id, 77, args);
}

class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    static bool once = false;
    if (!once) {
      ASSERT_EQ(0, TevdAgent_InitStreamList());
      once = true;
    }
  }
};

}  // namespace

TEST_F(AgentTest, SubscriptionMatchesWholeDomainWordsAndExactIds) {
  TevdAgent *agent = nullptr;
  ASSERT_EQ(0,
            TevdAgent_Init("matchAgent", {"net", "storage.apd"}, {"tev.scsi.exact.one"}, &agent));
  struct Row {
    const char *id;
    bool match;
  } rows[] = {
      {"tev.net.hwnic.linkstate.down", true},
      {"tev.net", false},        // the bare prefix
      {"tev.network.x", false},  // extends the word without a dot
      {"tev.net.", true},
      {"tev.storage.apd.start", true},
      {"tev.storage.other", false},
      {"tev.scsi.exact.one", true},
      {"tev.scsi.exact.one.more", false},
      {"tev.scsi.exact", false},
      {"tev.NET.hwnic", false},  // case-sensitive
  };
  for (const Row &r : rows) {
    EXPECT_EQ(r.match, TevdAgent_SubscriptionMatches(agent->sub, r.id)) << r.id;
  }
  TevdAgent_Cleanup(agent);
}

TEST_F(AgentTest, ElevenWordsOrIdsFailInitialisationWithCode1) {
  std::vector<std::string> eleven = {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k"};
  std::vector<std::string> ten(eleven.begin(), eleven.end() - 1);
  TevdAgent *agent = nullptr;
  EXPECT_EQ(1, TevdAgent_Init("tooManyWords", eleven, {}, &agent));
  EXPECT_EQ(1, TevdAgent_Init("tooManyIds", {"x"}, eleven, &agent));
  ASSERT_EQ(0, TevdAgent_Init("tenWords", ten, ten, &agent));
  TevdAgent_Cleanup(agent);
}

TEST_F(AgentTest, RecordWrittenInTwoPiecesReassemblesIntoOneObservation) {
  TevdAgent *agent = nullptr;
  ASSERT_EQ(0, TevdAgent_InitOne("splitAgent", "net", &agent));
  std::vector<uint8_t> rec = Record("tev.net.split.record", {S("hwnic3"), I(-5)});
  // Split inside the header, then inside the body.
  size_t cuts[] = {10, 40};
  size_t from = 0;
  Tev *tev = nullptr;
  for (size_t cut : cuts) {
    ASSERT_EQ(static_cast<ssize_t>(cut - from),
              write(agent->stream->writeFd, rec.data() + from, cut - from));
    ASSERT_EQ(0, TevdAgent_ReassembleStep(agent->stream, &tev));
    EXPECT_EQ(nullptr, tev);
    from = cut;
  }
  ASSERT_EQ(static_cast<ssize_t>(rec.size() - from),
            write(agent->stream->writeFd, rec.data() + from, rec.size() - from));
  ASSERT_EQ(0, TevdAgent_ReassembleStep(agent->stream, &tev));
  ASSERT_NE(nullptr, tev);
  const char *id = nullptr;
  const char *nic = nullptr;
  int32_t v = 0;
  Tev_GetID(tev, &id);
  EXPECT_STREQ("tev.net.split.record", id);
  ASSERT_EQ(0, Tev_GetStringArg(tev, 0, &nic));
  EXPECT_STREQ("hwnic3", nic);
  ASSERT_EQ(0, Tev_GetIntArg(tev, 1, &v));
  EXPECT_EQ(-5, v);
  Tev_Free(tev);
  TevdAgent_Cleanup(agent);
}

TEST_F(AgentTest, DistributionWritesEachRecordOnlyToMatchingStreams) {
  TevdAgent *net = nullptr;
  TevdAgent *scsi = nullptr;
  ASSERT_EQ(0, TevdAgent_InitOne("netAgent", "net", &net));
  ASSERT_EQ(0, TevdAgent_InitOne("scsiAgent", "scsi", &scsi));
  std::vector<uint8_t> buf;
  for (const char *id : {"tev.net.a", "tev.scsi.b", "tev.nobody.c", "tev.net.d"}) {
    std::vector<uint8_t> r = Record(id);
    buf.insert(buf.end(), r.begin(), r.end());
  }
  ASSERT_EQ(0, TevdAgent_Distribute(buf.data(), buf.size()));
  auto next = [](TevdAgent *a) {
    Tev *t = nullptr;
    EXPECT_EQ(0, TevdAgent_WaitTev(a, &t));
    const char *id = nullptr;
    Tev_GetID(t, &id);
    std::string s = id;
    Tev_Free(t);
    return s;
  };
  EXPECT_EQ("tev.net.a", next(net));
  EXPECT_EQ("tev.net.d", next(net));
  EXPECT_EQ("tev.scsi.b", next(scsi));
  TevdAgent_Cleanup(net);
  TevdAgent_Cleanup(scsi);
}

TEST_F(AgentTest, FailingPipeWriteStopsTheBufferAndReturnsErrno) {
  TevdAgent *agent = nullptr;
  ASSERT_EQ(0, TevdAgent_InitOne("brokenAgent", "broken", &agent));
  close(agent->stream->readFd);
  agent->stream->readFd = dup(agent->stream->writeFd);  // keeps cleanup's close valid
  std::vector<uint8_t> r = Record("tev.broken.x");
  // The write end's reader is gone: EPIPE (SIGPIPE ignored).
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  int savedWrite = agent->stream->writeFd;
  agent->stream->writeFd = fds[1];
  close(fds[0]);
  EXPECT_EQ(EPIPE, TevdAgent_Distribute(r.data(), r.size()));
  agent->stream->writeFd = savedWrite;
  close(fds[1]);
  TevdAgent_Cleanup(agent);
}

// One pipe read takes several records; they are served in order without
// waiting on the pipe again, including one larger than a read's chunk.
TEST_F(AgentTest, RecordsReadTogetherComeOutOneByOneInOrder) {
  TevdAgent *agent = nullptr;
  ASSERT_EQ(0, TevdAgent_InitOne("chunkAgent", "net", &agent));
  std::vector<std::vector<uint8_t>> recs = {
      Record("tev.net.a"), Record("tev.net.b", {S("x")}), Record("tev.net.c"),
      Record("tev.net.large", {S(std::string(40000, 'l'))}), Record("tev.net.d")};
  std::vector<uint8_t> all;
  for (const auto &r : recs) all.insert(all.end(), r.begin(), r.end());
  ASSERT_EQ(static_cast<ssize_t>(all.size()),
            write(agent->stream->writeFd, all.data(), all.size()));
  for (size_t i = 0; i < recs.size(); i++) {
    Tev *tev = nullptr;
    ASSERT_EQ(0, TevdAgent_WaitTev(agent, &tev));
    ASSERT_NE(nullptr, tev);
    uint32_t len = 0;
    const uint8_t *bytes = Tev_RecordBytes(tev, &len);
    ASSERT_EQ(recs[i].size(), len) << i;
    EXPECT_EQ(0, memcmp(recs[i].data(), bytes, len)) << i;
    Tev_Free(tev);
    if (i == 0) {
      EXPECT_TRUE(TevdAgent_StreamBuffered(agent->stream));
    }
  }
  EXPECT_FALSE(TevdAgent_StreamBuffered(agent->stream));
  TevdAgent_Cleanup(agent);
}

TEST_F(AgentTest, PipeClosedInsideARecordPanics) {
  // A header that announces 100 bytes, then the writer goes away: the body
  // read finds end of file.
  EXPECT_DEATH(
      {
        TevdAgent *agent = nullptr;
        TevdAgent_InitOne("eofAgent", "eof", &agent);
        std::vector<uint8_t> rec = Record("tev.eof.x");
        uint32_t total = 100;
        memcpy(rec.data() + 16, &total, 4);
        if (write(agent->stream->writeFd, rec.data(), 32) != 32) {
          return;
        }
        close(agent->stream->writeFd);
        Tev *t = nullptr;
        TevdAgent_WaitTev(agent, &t);
      },
      "Tevd - Panic: EOF trying to read 68 bytes from stream 0x");
}

TEST_F(AgentTest, PipeClosedBeforeAnyByteOfARecordPanicsInTheHeaderRead) {
  EXPECT_DEATH(
      {
        TevdAgent *agent = nullptr;
        TevdAgent_InitOne("eofHeaderAgent", "eof", &agent);
        close(agent->stream->writeFd);
        Tev *t = nullptr;
        TevdAgent_ReassembleStep(agent->stream, &t);
      },
      "Tevd - Panic: EOF trying to read 32 bytes from stream 0x");
}

TEST_F(AgentTest, StorageApdObservationReachesTheApdWordAndNotTheScsiWord) {
  ScratchRoot root;
  LogLines log(root);
  TevdAgent *apd = nullptr;
  TevdAgent *scsi = nullptr;
  ASSERT_EQ(0, TevdAgent_InitOne("apdWordAgent", "storage.apd", &apd));
  ASSERT_EQ(0, TevdAgent_InitOne("scsiWordAgent", "scsi", &scsi));
  std::vector<uint8_t> r = Record("tev.storage.apd.start");
  ASSERT_EQ(0, TevdAgent_Distribute(r.data(), r.size()));
  struct pollfd pfd = {scsi->pollFd, POLLIN, 0};
  EXPECT_EQ(0, poll(&pfd, 1, 0));  // nothing written to the scsi pipe
  Tev *t = nullptr;
  ASSERT_EQ(0, TevdAgent_WaitTev(apd, &t));
  const char *id = nullptr;
  Tev_GetID(t, &id);
  EXPECT_STREQ("tev.storage.apd.start", id);
  Tev_Free(t);
  TevdAgent_Cleanup(apd);
  EXPECT_NE("", log.WaitFor("Done cleaning up agent.\n"));
  TevdAgent_Cleanup(scsi);
}

TEST_F(AgentTest, LoggerWithElevenWordsFailsInitialisationWithCode1AndTheTrailingBlank) {
  ScratchRoot root;
  LogLines log(root);
  // On a thread of its own: initialisation renames the calling thread.
  std::thread logger(TevdLogger_Start);
  logger.join();
  std::string line = log.WaitFor("Failed to initialize agent");
  ASSERT_NE("", line);
  const std::string tail = "Z: Failed to initialize agent LogAllLogger (error code: 1) \n";
  ASSERT_GE(line.size(), tail.size()) << line;
  EXPECT_EQ(tail, line.substr(line.size() - tail.size())) << line;
}
