// Agents: subscriptions, distribution, record reassembly; the correlator loop.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Harness.h"
#include "TevRecord.h"
#include "tevdAgentInternal.h"  // the stream's pipe and reassembly
#include "tevdCorrelator.h"
#include "tevdLog.h"
#include "tevdTrace.h"

using namespace tevdtest;

namespace {

std::vector<uint8_t> Record(const std::string &id, const std::vector<MsgFmt_Value> &args = {}) {
  return TevRecord_Encode(id, "msg of " + id, 77, args);
}

TevdAgent *Agent(const char *name, const char *word) {
  TevdAgent *agent = nullptr;
  EXPECT_EQ(0, TevdAgent_InitOne(name, word, &agent));
  return agent;
}

std::vector<uint8_t> BytesOf(Tev *t) {
  uint32_t len = 0;
  const uint8_t *bytes = t != nullptr ? Tev_RecordBytes(t, &len) : nullptr;
  std::vector<uint8_t> out(bytes, bytes + len);
  Tev_Free(t);
  return out;
}
std::vector<uint8_t> Next(TevdAgent *agent) {
  Tev *t = nullptr;
  EXPECT_EQ(0, TevdAgent_WaitTev(agent, &t));
  return BytesOf(t);
}

std::string called;
int Known(Tev *) { return called = "known", 0; }
int Fallback(Tev *) { return called = "default", 0; }

std::atomic<int> handled{0}, handledAfter{0};
int ThrowRuntime(Tev *) { throw std::runtime_error("lost observation"); }
int ThrowInt(Tev *) { throw 7; }
int CountOk(Tev *) { return ++handled, 0; }
int CountAfter(Tev *) { return ++handledAfter, 0; }

void Post(const char *id) {
  std::vector<uint8_t> r = Record(id);
  EXPECT_EQ(0, TevdAgent_Distribute(r.data(), r.size()));
}

class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override { signal(SIGPIPE, SIG_IGN); }
  ScratchRoot root_;
  LogLines log_{root_};
};

}  // namespace

TEST_F(AgentTest, SubscriptionMatchesWholeDomainWordsAndExactIdsUpToTenEach) {
  TevdAgent *agent = nullptr;
  ASSERT_EQ(0, TevdAgent_Init("match", {"net", "storage.apd"}, {"tev.scsi.exact.one"}, &agent));
  for (const char *id : {"tev.net.hwnic.linkstate.down", "tev.net.", "tev.storage.apd.start",
                         "tev.scsi.exact.one"}) {
    EXPECT_TRUE(TevdAgent_SubscriptionMatches(agent->sub, id)) << id;
  }
  // Not the bare prefix, no word extended without a dot, case-sensitive.
  for (const char *id : {"tev.net", "tev.network.x", "tev.storage.other", "tev.scsi.exact.one.more",
                         "tev.scsi.exact", "tev.NET.hwnic"}) {
    EXPECT_FALSE(TevdAgent_SubscriptionMatches(agent->sub, id)) << id;
  }
  TevdAgent_Cleanup(agent);
  std::vector<std::string> eleven = {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k"};
  std::vector<std::string> ten(eleven.begin(), eleven.end() - 1);
  EXPECT_EQ(1, TevdAgent_Init("tooManyWords", eleven, {}, &agent));
  EXPECT_EQ(1, TevdAgent_Init("tooManyIds", {"x"}, eleven, &agent));
  ASSERT_EQ(0, TevdAgent_Init("tenWords", ten, ten, &agent));
  TevdAgent_Cleanup(agent);
}

// Split inside the 32-byte header, then inside the body.
TEST_F(AgentTest, RecordWrittenInPiecesReassemblesIntoOneObservation) {
  TevdAgent *agent = Agent("splitAgent", "net");
  std::vector<uint8_t> rec = Record("tev.net.split.record", {S("hwnic3"), I(-5)});
  Tev *tev = nullptr;
  size_t from = 0;
  for (size_t cut : {size_t{10}, size_t{40}, rec.size()}) {
    ASSERT_EQ(nullptr, tev) << "complete before byte " << from;
    ASSERT_EQ(static_cast<ssize_t>(cut - from),
              write(agent->stream->writeFd, rec.data() + from, cut - from));
    ASSERT_EQ(0, TevdAgent_ReassembleStep(agent->stream, &tev));
    from = cut;
  }
  EXPECT_EQ(rec, BytesOf(tev));
  TevdAgent_Cleanup(agent);
}

// Three records in one read; a wake-up arriving while two are still buffered
// is reported with the next record, not after the rest of the read.
TEST_F(AgentTest, WakeUpDuringABufferedReadIsServedAfterTheCurrentRecord) {
  TevdAgent *agent = Agent("wakeAgent", "net");
  int wake[2];
  ASSERT_EQ(0, pipe(wake));
  std::vector<uint8_t> buf;
  for (const char *id : {"tev.net.a", "tev.net.b", "tev.net.c"}) {
    std::vector<uint8_t> r = Record(id);
    buf.insert(buf.end(), r.begin(), r.end());
  }
  ASSERT_EQ(static_cast<ssize_t>(buf.size()),
            write(agent->stream->writeFd, buf.data(), buf.size()));
  Tev *tev = nullptr;
  int ready = -1;
  ASSERT_EQ(0, TevdAgent_WaitTev(agent, &tev, wake, 1, &ready));
  EXPECT_EQ(Record("tev.net.a"), BytesOf(tev));
  EXPECT_EQ(0, ready);
  char byte = 'w';
  ASSERT_EQ(1, write(wake[1], &byte, 1));
  ASSERT_EQ(0, TevdAgent_WaitTev(agent, &tev, wake, 1, &ready));
  EXPECT_EQ(Record("tev.net.b"), BytesOf(tev));
  EXPECT_EQ(1, ready);
  ASSERT_EQ(1, read(wake[0], &byte, 1));
  ASSERT_EQ(0, TevdAgent_WaitTev(agent, &tev, wake, 1, &ready));
  EXPECT_EQ(Record("tev.net.c"), BytesOf(tev));
  EXPECT_EQ(0, ready);
  close(wake[0]);
  close(wake[1]);
  TevdAgent_Cleanup(agent);
}

TEST_F(AgentTest, DistributionWritesEachRecordOnlyToMatchingStreams) {
  TevdAgent *net = Agent("netAgent", "net");
  TevdAgent *scsi = Agent("scsiAgent", "scsi");
  TevdAgent *apd = Agent("apdAgent", "storage.apd");
  std::vector<uint8_t> buf;
  for (const char *id :
       {"tev.net.a", "tev.scsi.b", "tev.nobody.c", "tev.storage.apd.d", "tev.net.e"}) {
    std::vector<uint8_t> r = Record(id);
    buf.insert(buf.end(), r.begin(), r.end());
  }
  ASSERT_EQ(0, TevdAgent_Distribute(buf.data(), buf.size()));
  EXPECT_EQ(Record("tev.net.a"), Next(net));
  EXPECT_EQ(Record("tev.net.e"), Next(net));
  EXPECT_EQ(Record("tev.scsi.b"), Next(scsi));
  EXPECT_EQ(Record("tev.storage.apd.d"), Next(apd));
  struct pollfd pfd = {scsi->pollFd, POLLIN, 0};
  EXPECT_EQ(0, poll(&pfd, 1, 0));  // the apd record did not reach the scsi word
  TevdAgent_Cleanup(net);
  TevdAgent_Cleanup(scsi);
  TevdAgent_Cleanup(apd);
}

// The first record cannot reach its agent (a full pipe, and the reader asked
// to exit): the second must not have been traced "IN" ahead of that hand-over.
TEST_F(AgentTest, NextRecordIsNotTracedInBeforeThePreviousOneReachedItsAgent) {
  TevdAgent *agent = Agent("fullAgent", "net");
  const std::vector<char> page(4096, 0);
  while (write(agent->stream->writeFd, page.data(), page.size()) > 0) {}
  std::vector<uint8_t> buf = Record("tev.net.first"), second = Record("tev.net.second");
  buf.insert(buf.end(), second.begin(), second.end());
  volatile sig_atomic_t stop = 1;
  TevdAgent_SetStopFlag(&stop);
  EXPECT_EQ(EINTR, TevdAgent_Distribute(buf.data(), buf.size()));
  TevdAgent_SetStopFlag(nullptr);
  std::vector<std::string> history = TraceHistory();
  ASSERT_FALSE(history.empty());
  EXPECT_TRUE(Contains(history.back(), ",IN,77,tev.net.first,"));
  for (const std::string &line : history) EXPECT_FALSE(Contains(line, "tev.net.second"));
  TevdAgent_Cleanup(agent);
}

// The writer goes away before any byte, or after a header announcing 100 bytes.
TEST_F(AgentTest, PipeClosedInsideARecordPanicsNamingTheMissingBytes) {
  for (ssize_t written : {0, 32}) {
    EXPECT_DEATH(
        {
          TevdAgent *agent = Agent("eofAgent", "eof");
          std::vector<uint8_t> rec = Record("tev.eof.x");
          uint32_t total = 100;
          memcpy(rec.data() + 16, &total, 4);
          if (write(agent->stream->writeFd, rec.data(), written) != written) return;
          close(agent->stream->writeFd);
          Tev *t = nullptr;
          for (int step = 0; step < 3; step++) TevdAgent_ReassembleStep(agent->stream, &t);
        },
        "Tevd - Panic: EOF trying to read " + std::string(written ? "68" : "32") +
            " bytes from stream 0x");
  }
}

TEST_F(AgentTest, LoggerWithElevenWordsFailsInitialisationWithCode1AndTheTrailingBlank) {
  std::thread(TevdLogger_Start).join();  // initialisation renames the calling thread
  std::string line = log_.WaitFor("Failed to initialize agent");
  const std::string tail = "Z: Failed to initialize agent LogAllLogger (error code: 1) \n";
  EXPECT_EQ(tail, line.substr(line.size() - std::min(line.size(), tail.size()))) << line;
}

TEST(TevdCorrelatorTest, DispatchIsByExactCaseSensitiveIdWithDefaultForAbsentOrNull) {
  TevHandlerMap map = {{"tev.net.known", Known}, {"tev.net.null", nullptr}};
  for (const char *id : {"tev.net.known", "tev.net.KNOWN", "tev.net.null", "tev.net.known.more"}) {
    called.clear();
    TevdCorrelator_Dispatch(Fallback, map, MakeTev(id).get());
    EXPECT_EQ(strcmp(id, "tev.net.known") == 0 ? "known" : "default", called) << id;
  }
  EXPECT_EQ(2u, map.size());  // lookups of unknown identifiers add nothing
}

TEST_F(AgentTest, CorrelatorRuntimeErrorLosesOneObservationIntEndsTheAgent) {
  TevdAgent_Start([] {
    TevdCorrelator_Start("thrower", "thrower", nullptr,
                         {{"tev.thrower.runtime", ThrowRuntime},
                          {"tev.thrower.int", ThrowInt},
                          {"tev.thrower.ok", CountOk},
                          {"tev.thrower.after", CountAfter}});
  });
  handled = handledAfter = 0;  // a repeated run starts afresh
  ASSERT_TRUE(Eventually([] { return Post("tev.thrower.ok"), handled > 0; }, 5000));
  Post("tev.thrower.runtime");
  Post("tev.thrower.after");
  EXPECT_TRUE(Eventually([] { return handledAfter == 1; }, 5000)) << "the agent ended";
  Post("tev.thrower.int");
  EXPECT_NE("", log_.WaitFor("Unknown exception in agent function(0x"));
  TevdAgent_StopAll();
}
