// Agent threads. DESIGN: the reader thread (main) owns the thread table and
// is the only writer of every agent pipe; each agent owns its stream's read
// end and reassembles records from it. The stream list is shared: agents add
// and remove their own stream, the reader walks it to distribute a buffer;
// one stream lock guards it, held for a whole buffer so records keep their
// order across agents. The structures are the agent sources' own
// (tevdAgentInternal.h).
#pragma once

#include <signal.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "TevLib.h"

constexpr int TEVD_MAX_AGENTS = 32;
constexpr int TEVD_SUBSCRIPTION_MAX = 10;
// Descriptors besides its stream that one agent may wait on.
constexpr int TEVD_AGENT_MAX_EXTRA_FDS = 4;

// Results of setting an agent up and of reading its stream. The values are
// the ones callers and the log have always seen; SHORT and NO_ROOM keep the
// errno values they stand for.
enum TevdAgentCode : int {
  TEVD_AGENT_OK = 0,
  TEVD_AGENT_NO_MEMORY = 1,  // Init: out of memory, or too many words or ids
  TEVD_AGENT_BROKEN = 2,     // a pipe could not be set up, a stream or a wait failed
  TEVD_AGENT_SHORT = 11,     // reassembly: more bytes wanted (EAGAIN)
  TEVD_AGENT_NO_ROOM = 12,   // reassembly: no memory for the read chunk (ENOMEM)
};

struct TevSubscription {
  int32_t numPrefixes = 0;
  int32_t numIds = 0;
  char *prefixes[TEVD_SUBSCRIPTION_MAX] = {};  // "tev.WORD"
  char *ids[TEVD_SUBSCRIPTION_MAX] = {};
};

// An agent's subscription and the stream it reads (tevdAgentInternal.h).
struct TevdAgent;

typedef void (*TevdAgentFn)(void);

// Reader thread only.
void TevdAgent_Start(TevdAgentFn fn);
void TevdAgent_StopAll(void);
int TevdAgent_NumStarted(void);
// Waits (at most `seconds`) until every started agent has subscribed or
// ended; true when all have.
bool TevdAgent_WaitSettled(unsigned seconds);
// Traces each record of a buffer of packed records ("IN") and writes it
// whole to every matching stream before it traces the next; 0 or errno.
int TevdAgent_Distribute(const uint8_t *buf, size_t length);
// The reader's exit request: a distribution waiting for room in a full pipe
// gives up with EINTR once it is set. The wait takes signals with
// `waitMask` (the reader's mask while it waits; null keeps the thread's own).
void TevdAgent_SetStopFlag(const volatile sig_atomic_t *flag, const sigset_t *waitMask = nullptr);

bool TevdAgent_SubscriptionMatches(const TevSubscription *sub, const char *id);
// TEVD_AGENT_OK, TEVD_AGENT_NO_MEMORY or TEVD_AGENT_BROKEN (pipe setup).
int TevdAgent_Init(const char *name, const std::vector<std::string> &words,
                   const std::vector<std::string> &ids, TevdAgent **agent);
int TevdAgent_InitOne(const char *name, const char *word, TevdAgent **agent);
// Waits for one whole observation, and, given `extraFds` (at most
// TEVD_AGENT_MAX_EXTRA_FDS), for any of them to become readable too. Returns
// TEVD_AGENT_OK with *tev set, or with *tev null and *readyExtra > 0 (the
// number of extra descriptors found readable; a record that completed in the
// same pass comes with them and goes first); else TEVD_AGENT_BROKEN.
int TevdAgent_WaitTev(TevdAgent *agent, Tev **tev, const int *extraFds = nullptr, int numExtra = 0,
                      int *readyExtra = nullptr);
void TevdAgent_Cleanup(TevdAgent *agent);
