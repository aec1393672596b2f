// Agent threads and the start-up barrier: starting and stopping the threads,
// and setting an agent up (its subscription and stream) or taking it down.
// Streams and distribution are in tevdAgentStreams.cpp, reassembly in
// tevdAgentReassembly.cpp.
#include "tevdAgent.h"

#include <cxxabi.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "PlatformLog.h"
#include "TevClock.h"
#include "TevMutex.h"
#include "tevdAgentInternal.h"
#include "tevdLog.h"
#include "tevdMetrics.h"

using namespace tevd_agent;

namespace {

pthread_t agentThreads[TEVD_MAX_AGENTS];
int agentCount = 0;

// Start-up waits until every agent has subscribed (or given up), so that no
// record read by the loop finds an agent that is not listening yet.
TevMutex settleMutex;
pthread_cond_t settleCond = PTHREAD_COND_INITIALIZER;
int settledCount GUARDED_BY(settleMutex) = 0;
thread_local bool agentSettled = false;

}  // namespace

void tevd_agent::MarkSettled() {
  if (agentSettled) {
    return;
  }
  agentSettled = true;
  TevLock hold(&settleMutex);
  ++settledCount;
  pthread_cond_broadcast(&settleCond);
}

namespace {

unsigned AddrLow32(TevdAgentFn fn) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(fn));
}

// Cancellation unwinds with a foreign exception object whose catch binding
// the null-reference check misreads; the rethrow below is the required idiom.
__attribute__((no_sanitize("null"))) void *AgentThreadMain(void *arg) {
  TevdAgentFn fn = reinterpret_cast<TevdAgentFn>(arg);
  // An agent must stop wherever it blocks: in its poll, a pipe read, a
  // connect or send to the management agent, a log write. Every one of those
  // is a cancellation point, so deferred cancellation stops it there. An
  // asynchronous cancel could also land between two instructions of C++
  // code, or inside a C library call declared not to throw (the unwinder
  // then terminates the process), or while the C library holds an internal
  // lock that the exiting main thread needs: a signal during a burst of
  // observations would then abort or hang the daemon instead of exiting 0.
  if (pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr) != 0) {
    TevdLog("Failed to set thread cancel type for agent function(%#x).\n", AddrLow32(fn));
  }
  // An agent's lines go out together before it waits for the next record.
  PlatformLog_BatchLines();
  try {
    fn();
  } catch (abi::__forced_unwind &) {
    throw;  // cancellation must unwind through here
  } catch (const std::exception &e) {
    TevdLog("Exception (%s) in agent function(%#x).\n", e.what(), AddrLow32(fn));
  } catch (...) {
    TevdLog("Unknown exception in agent function(%#x).\n", AddrLow32(fn));
  }
  PlatformLog_Unbatch();  // the agent ends: nothing may stay queued
  MarkSettled();
  return nullptr;
}

}  // namespace

void TevdAgent_Start(TevdAgentFn fn) {
  if (agentCount >= TEVD_MAX_AGENTS) {
    TevdLog("Failed to start agent. Already reached max limit of %u agents.\n",
            static_cast<unsigned>(TEVD_MAX_AGENTS));
    return;
  }
  int rc = pthread_create(&agentThreads[agentCount], nullptr, AgentThreadMain,
                          reinterpret_cast<void *>(fn));
  if (rc != 0) {
    TevdLog("Failed to create thread %p (id:%d err:%d %s)\n", reinterpret_cast<void *>(fn),
            agentCount, rc, strerror(rc));
    return;
  }
  ++agentCount;
}

void TevdAgent_StopAll(void) {
#ifdef __SANITIZE_ADDRESS__
  // This toolchain's AddressSanitizer aborts while a cancelled thread unwinds
  // out of its instrumented frames. Its builds leave the agents, all blocked
  // waiting, to end with the process.
  if (getenv("TEVD_FORCE_CANCEL") == nullptr) {
    agentCount = 0;
    return;
  }
#endif
  while (agentCount > 0) {
    --agentCount;
    int rc = pthread_cancel(agentThreads[agentCount]);
    if (rc != 0) {
      TevdLog("Failed to cancel thread id:%d, err:%d %s\n", agentCount, rc, strerror(rc));
      continue;
    }
    rc = pthread_join(agentThreads[agentCount], nullptr);
    if (rc != 0) {
      TevdLog("Failed to join thread id:%d, err:%d %s\n", agentCount, rc, strerror(rc));
    }
  }
}

int TevdAgent_NumStarted(void) { return agentCount; }

bool TevdAgent_WaitSettled(unsigned seconds) {
  struct timespec deadline;
  TevClock_GetRealtime(&deadline);
  deadline.tv_sec += seconds;
  TevLock hold(&settleMutex);
  int rc = 0;
  while (settledCount < agentCount && rc != ETIMEDOUT) {
    rc = settleMutex.WaitUntil(&settleCond, &deadline);
  }
  return settledCount >= agentCount;
}

int TevdAgent_Init(const char *name, const std::vector<std::string> &words,
                   const std::vector<std::string> &ids, TevdAgent **out) {
  VThreadBase_SetName(name);
  int rc = TEVD_AGENT_OK;
  TevdAgent *agent = new (std::nothrow) TevdAgent;
  if (agent == nullptr) {
    rc = TEVD_AGENT_NO_MEMORY;
  }
  if (rc == TEVD_AGENT_OK) {
    agent->nameHolder = static_cast<char **>(calloc(1, sizeof(char *)));
    if (agent->nameHolder == nullptr || (*agent->nameHolder = strdup(name)) == nullptr) {
      rc = TEVD_AGENT_NO_MEMORY;
    }
  }
  if (rc == TEVD_AGENT_OK) {
    agent->sub = new (std::nothrow) TevSubscription;
    if (agent->sub == nullptr) {
      rc = TEVD_AGENT_NO_MEMORY;
    }
  }
  for (size_t i = 0; rc == TEVD_AGENT_OK && i < words.size(); ++i) {
    rc = AddPrefix(agent->sub, words[i].c_str());
  }
  for (size_t i = 0; rc == TEVD_AGENT_OK && i < ids.size(); ++i) {
    rc = AddId(agent->sub, ids[i].c_str());
  }
  if (rc == TEVD_AGENT_OK) {
    rc = CreateStream(agent->sub, agent->nameHolder, &agent->stream);
    agent->handled = TevdMetrics_CorrelatorCounter(name);
  }
  if (rc != TEVD_AGENT_OK) {
    if (agent != nullptr) {
      if (agent->sub != nullptr) {
        FreeSubscription(agent->sub);
        delete agent->sub;
      }
      if (agent->nameHolder != nullptr) {
        free(*agent->nameHolder);
        free(agent->nameHolder);
      }
      delete agent;
    }
    TevdLog("Failed to initialize agent %s (error code: %d) \n", name, rc);
    MarkSettled();
    return rc;
  }
  agent->pollFd = agent->stream->readFd;
  agent->numFds = 1;
  *out = agent;
  MarkSettled();
  return TEVD_AGENT_OK;
}

int TevdAgent_InitOne(const char *name, const char *word, TevdAgent **agent) {
  return TevdAgent_Init(name, {word}, {}, agent);
}

void TevdAgent_Cleanup(TevdAgent *agent) {
  if (agent->sub != nullptr) {
    FreeSubscription(agent->sub);
    delete agent->sub;
  }
  if (agent->stream != nullptr) {
    CloseStream(agent->stream);
  }
  if (agent->nameHolder != nullptr) {
    free(*agent->nameHolder);
    free(agent->nameHolder);
  }
  delete agent;
  TevdLog("Done cleaning up agent.\n");
}
