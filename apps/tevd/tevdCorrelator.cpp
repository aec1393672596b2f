// Correlator framework: turns an agent thread into a dispatch loop over a
// TevHandlerMap. Each observation is dispatched on a fresh copy of the map so
// that lookups of unknown identifiers never change the registered map.
#include "tevdCorrelator.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "Str.h"
#include "tevdAgent.h"
#include "tevdLog.h"

namespace {

char *AgentName(const char *name) {
  char *full = Str_Asprintf(nullptr, "%sCorrelator", name);
  return full != nullptr ? full : strdup(name);
}

// Dispatches one observation and frees it; std::exception costs only this
// observation, anything else ends the agent (the thread entry logs it).
void HandleOne(TevHandler defaultHandler, const TevHandlerMap &map, Tev *tev) {
  try {
    TevdCorrelator_Dispatch(defaultHandler, map, tev);
  } catch (const std::exception &) {
  } catch (...) {
    Tev_Free(tev);
    throw;
  }
  Tev_Free(tev);
}

}  // namespace

void TevdCorrelator_Dispatch(TevHandler defaultHandler, const TevHandlerMap &map, Tev *tev) {
  const char *rawId = nullptr;
  Tev_GetID(tev, &rawId);
  std::string id = rawId != nullptr ? rawId : "";
  TevHandlerMap copy(map);
  TevHandler handler = copy[id];
  if (handler != nullptr) {
    TevdLog_Tev(tev);
    handler(tev);
  } else if (defaultHandler != nullptr) {
    defaultHandler(tev);
  }
}

void TevdCorrelator_StartWithLists(const char *name, const std::vector<std::string> &words,
                                   const std::vector<std::string> &ids, TevHandler defaultHandler,
                                   const TevHandlerMap &map) {
  char *full = AgentName(name);
  TevdAgent *agent = nullptr;
  if (full == nullptr || TevdAgent_Init(full, words, ids, &agent) != 0) {
    free(full);
    return;
  }
  Tev *tev = nullptr;
  while (TevdAgent_WaitTev(agent, &tev) == 0) {
    HandleOne(defaultHandler, map, tev);
  }
  TevdAgent_Cleanup(agent);
  free(full);
}

void TevdCorrelator_StartWithWords(const char *name, const std::vector<std::string> &words,
                                   TevHandler defaultHandler, const TevHandlerMap &map) {
  TevdCorrelator_StartWithLists(name, words, {}, defaultHandler, map);
}

void TevdCorrelator_Start(const char *name, const char *domain, TevHandler defaultHandler,
                          const TevHandlerMap &map) {
  TevdCorrelator_StartWithWords(name, {domain}, defaultHandler, map);
}

void TevdCorrelator_StartWithWakeup(const char *name, const char *domain, TevHandler defaultHandler,
                                    const TevHandlerMap &map, TevdWakeupFn wakeup, const int *fds,
                                    int numFds) {
  char *full = AgentName(name);
  TevdAgent *agent = nullptr;
  if (full == nullptr || TevdAgent_InitOne(full, domain, &agent) != 0) {
    free(full);
    return;
  }
  for (;;) {
    Tev *tev = nullptr;
    int woken = 0;
    if (TevdAgent_WaitTev(agent, &tev, fds, numFds, &woken) != TEVD_AGENT_OK) {
      break;
    }
    if (tev != nullptr) {
      HandleOne(defaultHandler, map, tev);
    }
    for (int i = 0; i < woken; ++i) {
      // Tokens are drained from the first wake-up descriptor whichever was
      // ready; several pending tokens give a single callback.
      char drain[10];
      ssize_t ignored = read(fds[0], drain, sizeof drain);
      (void)ignored;
      wakeup();
    }
  }
  TevdAgent_Cleanup(agent);
  free(full);
}
