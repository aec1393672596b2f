// Null string arguments through the real daemon: posted with `tevctl post
// --null-strings`, they reach the management agent as null strings (or, for
// extent offline, as the empty device name) and the trace prints "(null)".
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DaemonProcess.h"
#include "ReliabilityHarness.h"
#include "TevctlProcess.h"

namespace {

const QprobMessage *Find(const std::vector<QprobMessage> &got, const std::string &id) {
  for (const QprobMessage &m : got) {
    if (m.id == id) return &m;
  }
  return nullptr;
}

bool IsNullString(const MsgFmt_Value &v) { return v.type == MSGFMT_TYPE_STRING && v.isNull; }

}  // namespace

TEST(NullStringsE2ETest, NullStringsArePostedAndTraced) {
  reltest::ScratchRoot root;
  reltest::MakeHost(root);
  reltest::AgentStandIn agent(root, reltest::AgentStandIn::Read);
  ASSERT_TRUE(agent.ok());
  tevdtest::DaemonProcess d(root);
  ASSERT_TRUE(d.WaitReady(20000)) << d.Stderr();
  reltest::TraceReader trace(root);
  ASSERT_TRUE(trace.ok());
  ASSERT_TRUE(trace.WaitLive(20000));

  const std::vector<std::vector<std::string>> posts = {
      {"post", "--null-strings", "tev.kfs.extent.offline", "%s %s", "NULL", "fs1"},
      {"post", "--null-strings", "tev.storage.apd.start", "%s", "NULL"},
      {"post", "--user", "--null-strings", "tev.user.test.test2", "%d %s", "4", "NULL"},
  };
  for (const auto &args : posts) {
    tevctltest::RunResult r = tevctltest::RunTevctl(root.path(), args);
    ASSERT_EQ(0, r.status) << args[2] << ": " << r.err;
  }
  ASSERT_TRUE(reltest::Eventually([&] { return agent.Messages().size() >= 3; }, 20000))
      << agent.Messages().size() << " events";
  std::vector<QprobMessage> got = agent.Messages();

  const QprobMessage *offline = Find(got, "kos.problem.kfs.extent.offline");
  ASSERT_NE(nullptr, offline);
  ASSERT_EQ(2u, offline->args.size());
  EXPECT_FALSE(offline->args[0].isNull);
  EXPECT_EQ("", offline->args[0].str);
  EXPECT_EQ("fs1", offline->args[1].str);

  const QprobMessage *apd = Find(got, "kos.problem.storage.apd.start");
  ASSERT_NE(nullptr, apd);
  ASSERT_EQ(1u, apd->args.size());
  EXPECT_TRUE(IsNullString(apd->args[0]));

  const QprobMessage *user = Find(got, "kos.problem.test.test2");
  ASSERT_NE(nullptr, user);
  ASSERT_EQ(2u, user->args.size());
  EXPECT_EQ(4u, static_cast<uint32_t>(user->args[0].bits));
  EXPECT_TRUE(IsNullString(user->args[1]));

  // Each null string is traced as "(null)": on the way in for all three, and
  // on the way out for the two that keep it.
  ASSERT_TRUE(trace.WaitCount("\"(null)\"", 5, 20000));
  for (const std::string id : {"tev.kfs.extent.offline", "kos.problem.storage.apd.start",
                               "kos.problem.test.test2"}) {
    bool traced = false;
    for (const std::string &line : trace.Matching(id)) {
      traced |= line.find("\"(null)\"") != std::string::npos;
    }
    EXPECT_TRUE(traced) << id;
  }
  EXPECT_TRUE(d.Running());
}
