// The daemon entry's start-up and shutdown pieces (see tevdMainSetup.h).
#include "tevdMainSetup.h"

#include <getopt.h>
#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KNO.h"
#include "PlatformSocket.h"
#include "tevdAlarm.h"
#include "tevdLog.h"
#include "tevdQprob.h"

namespace {

[[noreturn]] void Usage(const char *prog) {
  printf("Usage: %s [options]\n", prog);
  puts("valid options are:");
  puts("\t--help|-h - display this help");
  fflush(stdout);
  exit(0);
}

}  // namespace

bool TevdMain_ParseOptions(int argc, char **argv) {
  bool enableTevs = false;
  static const struct option kOptions[] = {
      {"enabletevs", no_argument, nullptr, 'e'},
      {"help", no_argument, nullptr, 'h'},
      {"loglevel", required_argument, nullptr, 'l'},
      {"test", no_argument, nullptr, 't'},
      {nullptr, 0, nullptr, 0},
  };
  if (argc <= 1) {
    return enableTevs;
  }
  int c;
  while ((c = getopt_long(argc, argv, "ehl:t", kOptions, nullptr)) == 'e') {
    enableTevs = true;
  }
  if (c != -1) {
    Usage(argv[0]);
  }
  return enableTevs;
}

namespace {

constexpr int kHandledSignals[] = {SIGTERM, SIGINT, SIGPIPE, SIGHUP, SIGUSR1};

}  // namespace

void TevdMain_BlockHandledSignals(sigset_t *waitMask) {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : kHandledSignals) {
    sigaddset(&set, sig);
  }
  pthread_sigmask(SIG_BLOCK, &set, waitMask);
  for (int sig : kHandledSignals) {
    sigdelset(waitMask, sig);
  }
}

int TevdMain_InstallSignals(void (*handler)(int)) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = handler;
  sigemptyset(&sa.sa_mask);
  for (int sig : kHandledSignals) {
    if (sigaction(sig, &sa, nullptr) != 0) {
      return errno;
    }
  }
  return 0;
}

int TevdMain_EnableAsyncTevs(void) {
  KNO_ParamList *instances = KNO_ParamListCreate();
  KNO_ParamList *values = KNO_ParamListCreate();
  int rc = 0;
  if (instances == nullptr || values == nullptr) {
    rc = ENOMEM;
  } else {
    KNO_ParamListAddString(instances, "Misc");
    KNO_ParamListAddString(instances, "TevAsyncEnable");
    KNO_ParamListAddInt(values, 1);
    rc = MTL_ReturnStatusToErrno(KNO_Set(KNO_NODE_config_intOpts, instances, values));
  }
  if (instances != nullptr) {
    KNO_ParamListDestroy(instances);
  }
  if (values != nullptr) {
    KNO_ParamListDestroy(values);
  }
  return rc;
}

int TevdMain_StartServices(bool enableTevs) {
  int rc = 0;
  TevdAlarm_StartThread();
  char kernelDate[128];
  char myDate[128];
  if (KNO_CheckSig(21, kernelDate, sizeof kernelDate, myDate, sizeof myDate) != 0) {
    Panic("md5 signature mismatch with running mantle built on %s (my build date: %s)\n",
          kernelDate, myDate);
  }
  TevdQprob_Init();
  if (enableTevs) {
    rc = TevdMain_EnableAsyncTevs();
    if (rc != 0) {
      TevdLog("Failed to enable asynchronous observations: %s\n", strerror(rc));
    }
  }
  return rc;
}

namespace {

// "Exiting. rc:98" alone does not say which socket could not be made; the
// call and the path go first (docs/running.md, departures).
void LogOpenFailure(const char *call, const std::string &path, int rc) {
  TevdLog("%s failed for %s: %s\n", call, path.c_str(), strerror(rc));
}

}  // namespace

int TevdMain_OpenContexts(ContextRow *contexts, struct pollfd *fixedSet) {
  int rc = 0;
  for (int i = 0; rc == 0 && i < kUserListener; ++i) {
    rc = TevLib_AsyncContextOpen(contexts[i].domain, &contexts[i].handle);
    if (rc != 0) {
      LogOpenFailure("TevLib_AsyncContextOpen",
                     PlatformEndpoint_Path(PlatformEndpoint::AsyncContext, contexts[i].domain), rc);
    }
    if (rc == 0) {
      fixedSet[i].events = POLLIN;
      TevLib_HandleToFd(contexts[i].handle, &fixedSet[i].fd);
    }
  }
  if (rc == 0) {
    rc = TevLib_UserContextOpen(contexts[kUserListener].domain, &contexts[kUserListener].handle);
    if (rc != 0) {
      LogOpenFailure("TevLib_UserContextOpen", PlatformEndpoint_Path(PlatformEndpoint::UserContext),
                     rc);
    }
    if (rc == 0) {
      fixedSet[kUserListener].events = POLLIN;
      TevLib_HandleToFd(contexts[kUserListener].handle, &fixedSet[kUserListener].fd);
    }
  }
  return rc;
}

void TevdMain_CloseContexts(ContextRow *contexts) {
  for (int i = 0; i < kNumContexts; ++i) {
    ContextRow &row = contexts[i];
    if (row.handle != nullptr) {
      int st = TevLib_Close(row.handle);
      if (st != 0) {
        TevdLog("Error closing handle %p: %d\n", static_cast<void *>(row.handle), st);
      }
    }
  }
}
