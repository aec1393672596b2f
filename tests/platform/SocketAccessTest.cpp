// Who may reach the platform's sockets: the modes of the files the contexts
// bind, whatever the process umask, and the peer credentials logged for each
// user-level connection.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "LogCapture.h"
#include "TevLib.h"
#include "TevdTestSupport.h"

using namespace tevdtest;

namespace {

mode_t ModeOf(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return 07777;
  EXPECT_TRUE(S_ISSOCK(st.st_mode)) << path;
  return st.st_mode & 07777;
}

// Opens with a umask that would otherwise leave the file world-writable.
class PermissiveUmask {
 public:
  PermissiveUmask() : saved_(umask(0)) {}
  ~PermissiveUmask() { umask(saved_); }
 private:
  mode_t saved_;
};

}  // namespace

TEST(SocketAccessTest, AsyncContextSocketIsOwnerOnlyEvenWithUmaskZero) {
  ScratchRoot root;
  TevLib_Handle h = nullptr;
  {
    PermissiveUmask u;
    ASSERT_EQ(0, TevLib_AsyncContextOpen(3, &h));
  }
  EXPECT_EQ(0600u, ModeOf(root.Abs("var/run/orlan/tev/async-03.sock")));
  TevLib_Close(h);
}

TEST(SocketAccessTest, UserContextSocketIsNotWorldWritableEvenWithUmaskZero) {
  ScratchRoot root;
  TevLib_Handle h = nullptr;
  {
    PermissiveUmask u;
    ASSERT_EQ(0, TevLib_UserContextOpen(TEVLIB_USER_DOMAIN, &h));
  }
  EXPECT_EQ(0660u, ModeOf(root.Abs("var/run/orlan/tevd-user.sock")));
  TevLib_Close(h);
}

TEST(SocketAccessTest, AcceptedUserConnectionLogsPeerPidUidGid) {
  ScratchRoot root;
  LogCapture log(root);
  TevLib_Handle h = nullptr;
  ASSERT_EQ(0, TevLib_UserContextOpen(TEVLIB_USER_DOMAIN, &h));
  int client = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  ASSERT_GE(client, 0);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s",
           root.Abs("var/run/orlan/tevd-user.sock").c_str());
  ASSERT_EQ(0, connect(client, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr));
  int cnx = -1;
  ASSERT_EQ(0, TevLib_UserContextNewCnx(h, &cnx));

  char expected[128];
  snprintf(expected, sizeof expected, "User-level connection from pid %d uid %u gid %u",
           static_cast<int>(getpid()), static_cast<unsigned>(getuid()),
           static_cast<unsigned>(getgid()));
  std::string line = log.WaitFor("User-level connection from");
  ASSERT_FALSE(line.empty()) << "no connection line was logged";
  size_t at = line.find(expected);
  ASSERT_NE(std::string::npos, at) << line;
  // The line ends there: nothing else is appended to it.
  std::string rest = line.substr(at + strlen(expected));
  EXPECT_TRUE(rest.empty() || rest == "\n") << line;

  TevLib_UserContextCloseCnx(cnx);
  close(client);
  TevLib_Close(h);
}
