// The daemon entry's start-up and shutdown pieces: options, signals, the
// table of observation contexts and their opening and closing. The poll loop
// that reads the contexts stays in tevdMain.cpp.
#pragma once

#include <poll.h>
#include <signal.h>

#include <cstdint>

#include "TevLib.h"

constexpr int kNumContexts = 23;
constexpr int kUserListener = 22;  // the last context: the user-level listener

struct ContextRow {
  uint32_t domain;
  TevLib_Handle handle;
};

const ContextRow kContextTable[kNumContexts] = {
    {0, nullptr},  {1, nullptr},  {2, nullptr},  {3, nullptr},  {4, nullptr},  {5, nullptr},
    {6, nullptr},  {7, nullptr},  {8, nullptr},  {9, nullptr},  {10, nullptr}, {11, nullptr},
    {12, nullptr}, {13, nullptr}, {14, nullptr}, {15, nullptr}, {16, nullptr}, {17, nullptr},
    {18, nullptr}, {19, nullptr}, {20, nullptr}, {21, nullptr}, {22, nullptr},
};

// True when --enabletevs was given; --help or an unknown option prints the
// usage and exits.
bool TevdMain_ParseOptions(int argc, char **argv);
// Installs `handler` for the handled signals (SIGTERM, SIGINT, SIGPIPE, and
// SIGHUP and SIGUSR1, which the loop logs and ignores).
int TevdMain_InstallSignals(void (*handler)(int));
// Blocks the handled signals in the calling thread and every thread it starts
// from then on; `waitMask` is the mask to wait with (ppoll) so that they are
// delivered there and only there. The reader waits with it, so a
// process-directed SIGTERM interrupts the reader's poll or its wait for room
// in an agent's pipe, never a worker's system call; and one that arrives
// while the reader is busy stays pending and ends its next wait at once,
// where an unblocked one could land between the exit test and the poll and
// be seen only at the next activity.
void TevdMain_BlockHandledSignals(sigset_t *waitMask);
int TevdMain_EnableAsyncTevs(void);
// Starts the alarm thread, checks the platform's signature (a mismatch is
// fatal), prepares posting and, when asked, enables asynchronous
// observations; an errno value when that fails.
int TevdMain_StartServices(bool enableTevs);
// Opens the asynchronous contexts and the user-level listener into their
// rows and their poll entries; an errno value on the first failure.
int TevdMain_OpenContexts(ContextRow *contexts, struct pollfd *fixedSet);
void TevdMain_CloseContexts(ContextRow *contexts);
