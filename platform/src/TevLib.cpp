// Observation contexts over UNIX sockets under the root: one datagram socket
// per asynchronous domain, one SOCK_SEQPACKET listener for user processes.
// TevLib_ReadFromFd is called by the daemon's single poll thread. On a user
// connection it peeks at each pending record's size before taking it, so
// nothing is consumed when the first record does not fit. An asynchronous
// context is read several datagrams per system call into the context's own
// batch, from which records are served in order; one that does not fit the
// caller's buffer waits there, which for the caller is the same as waiting
// in the socket. Malformed records never leave this file.
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "PlatformInternal.h"
#include "PlatformSocket.h"
#include "TevLib.h"
#include "TevMutex.h"

namespace {

TevMutex gNamesMutex;
std::map<int, std::string> gNames GUARDED_BY(gNamesMutex);

std::string SocketPath(uint32_t domain) {
  return domain == TEVLIB_USER_DOMAIN
             ? PlatformEndpoint_Path(PlatformEndpoint::UserContext)
             : PlatformEndpoint_Path(PlatformEndpoint::AsyncContext, domain);
}

int OpenContext(uint32_t domain, bool user, TevLib_Handle *handle) {
  if (handle == nullptr) return TEVLIB_ERR_INVAL;
  *handle = nullptr;
  std::string path = SocketPath(domain);
  // Only the daemon's user and group may reach the user-level context; only
  // the daemon's own user (the kernel side) the asynchronous ones.
  PlatformListen how;
  how.type = user ? SOCK_SEQPACKET : SOCK_DGRAM;
  how.flags = SOCK_NONBLOCK;
  how.mode = user ? 0660 : 0600;
  how.backlog = 16;
  int fd = PlatformSocket_Listen(path, how);
  if (fd < 0) return errno;
  TevLibContext *ctx = new TevLibContext;
  ctx->domain = domain;
  ctx->user = user;
  ctx->fd = fd;
  char name[TEVLIB_NAME_MAX];
  if (user) {
    snprintf(name, sizeof name, "user");
  } else {
    snprintf(name, sizeof name, "async-%02u", domain);
  }
  ctx->name = name;
  platform_internal::RegisterFdName(fd, ctx->name);
  if (!user) {
    platform_internal::AttachReadBatch(fd);
  }
  *handle = ctx;
  return TEVLIB_OK;
}

}  // namespace

namespace platform_internal {
void RegisterFdName(int fd, const std::string &name) {
  TevLock hold(&gNamesMutex);
  gNames[fd] = name;
}
void ForgetFd(int fd) {
  TevLock hold(&gNamesMutex);
  gNames.erase(fd);
}
std::string FdName(int fd) {
  TevLock hold(&gNamesMutex);
  auto it = gNames.find(fd);
  return it != gNames.end() ? it->second : "fd " + std::to_string(fd);
}
}  // namespace platform_internal

int TevLib_AsyncContextOpen(uint32_t domain, TevLib_Handle *handle) {
  if (domain >= TEVLIB_NUM_ASYNC_DOMAINS) {
    if (handle != nullptr) *handle = nullptr;
    return TEVLIB_ERR_INVAL;
  }
  return OpenContext(domain, false, handle);
}

int TevLib_UserContextOpen(uint32_t domain, TevLib_Handle *handle) {
  if (domain != TEVLIB_USER_DOMAIN) {
    if (handle != nullptr) *handle = nullptr;
    return TEVLIB_ERR_INVAL;
  }
  return OpenContext(domain, true, handle);
}

int TevLib_HandleToFd(TevLib_Handle handle, int *fd) {
  if (handle == nullptr || fd == nullptr) return TEVLIB_ERR_INVAL;
  *fd = handle->fd;
  return TEVLIB_OK;
}

int TevLib_HandleToName(TevLib_Handle handle, char *name) {
  if (handle == nullptr || name == nullptr) return TEVLIB_ERR_INVAL;
  snprintf(name, TEVLIB_NAME_MAX, "%s", handle->name.c_str());
  return TEVLIB_OK;
}

int TevLib_UserContextNewCnx(TevLib_Handle handle, int *fd) {
  if (handle == nullptr || fd == nullptr || !handle->user) return TEVLIB_ERR_INVAL;
  int c = accept4(handle->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (c < 0) return errno;
  // Who connected, for the record: the kernel's view of the peer at connect().
  struct ucred cred;
  socklen_t credLen = sizeof cred;
  if (getsockopt(c, SOL_SOCKET, SO_PEERCRED, &cred, &credLen) == 0 && credLen == sizeof cred) {
    platform_internal::TevLibLog("User-level connection from pid %d uid %u gid %u\n",
                                 static_cast<int>(cred.pid), static_cast<unsigned>(cred.uid),
                                 static_cast<unsigned>(cred.gid));
  } else {
    platform_internal::TevLibLog("User-level connection from an unknown peer\n");
  }
  platform_internal::RegisterFdName(c, handle->name);
  *fd = c;
  return TEVLIB_OK;
}

int TevLib_UserContextCloseCnx(int fd) {
  if (fd < 0) return -1;
  platform_internal::ForgetFd(fd);
  return close(fd) == 0 ? 0 : -1;
}

int TevLib_Close(TevLib_Handle handle) {
  if (handle == nullptr) return TEVLIB_ERR_INVAL;
  platform_internal::ForgetFd(handle->fd);
  platform_internal::DetachReadBatch(handle->fd);
  int rc = close(handle->fd) == 0 ? TEVLIB_OK : TEVLIB_ERR_IO;
  delete handle;
  return rc;
}
