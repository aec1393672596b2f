// Correlator framework: a start function builds its TevHandlerMap and calls
// TevdCorrelator_Start on its own agent thread, which never returns while the
// agent lives. Handlers of one correlator never run concurrently.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "TevLib.h"

typedef int (*TevHandler)(Tev *tev);
typedef std::map<std::string, TevHandler> TevHandlerMap;
typedef void (*TevdWakeupFn)(void);

void TevdCorrelator_Start(const char *name, const char *domain, TevHandler defaultHandler,
                          const TevHandlerMap &map);
void TevdCorrelator_StartWithWords(const char *name, const std::vector<std::string> &words,
                                   TevHandler defaultHandler, const TevHandlerMap &map);
void TevdCorrelator_StartWithLists(const char *name, const std::vector<std::string> &words,
                                   const std::vector<std::string> &ids, TevHandler defaultHandler,
                                   const TevHandlerMap &map);
void TevdCorrelator_StartWithWakeup(const char *name, const char *domain, TevHandler defaultHandler,
                                    const TevHandlerMap &map, TevdWakeupFn wakeup, const int *fds,
                                    int numFds);
// One dispatch on a per-observation copy of `map` (exposed for tests). Throws
// what the handler throws.
void TevdCorrelator_Dispatch(TevHandler defaultHandler, const TevHandlerMap &map, Tev *tev);

// Start functions, in the daemon's start order.
void TevdCorrelator_StartNet(void);
void TevdCorrelator_StartScsi(void);
void TevdCorrelator_StartAPD(void);
void TevdCorrelator_StartiScsi(void);
void TevdCorrelator_StartKfs(void);
void TevdCorrelator_StartUser(void);
void TevdCorrelator_StartHardware(void);
void TevdCorrelator_StartCpu(void);
void TevdCorrelator_StartUW(void);
void TevdCorrelator_StartSwap(void);
void TevdCorrelator_StartVM(void);
void TevdCorrelator_StartGeneric(void);
void TevdCorrelator_StartMigrate(void);
void TevdCorrelator_StartPageRetire(void);
void TevdCorrelator_StartLumafs(void);
void TevdCorrelator_StartVfat(void);
void TevdCorrelator_StartClock(void);
void TevdCorrelator_StartNimbo(void);
void TevdCorrelator_StartTest(void);

// Starts every correlator in table order; the logger and self-test agents
// only when `extraAgents` is true.
void TevdCorrelator_StartAll(bool extraAgents);
