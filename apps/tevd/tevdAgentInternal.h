// Shared by the agent's sources only (tevdAgent*.cpp, and the agent's own
// test): the agent and its stream, the start-up barrier's mark, and setting
// up or taking down an agent's subscription and stream.
#pragma once

#include "tevdAgent.h"

struct TevStream {
  // The shared list's links, under its lock (tevdAgentStreams.cpp).
  TevStream *prev = nullptr;
  TevStream *next = nullptr;
  int readFd = -1;
  int writeFd = -1;
  TevSubscription sub;
  char **nameHolder = nullptr;
  uint8_t *buf = nullptr;
  uint32_t have = 0;
  uint32_t want = 0;
  // Bytes read from the pipe ahead of the record being reassembled: one read
  // takes whatever the pipe holds, and the records in it are served from here.
  uint8_t *chunk = nullptr;
  uint32_t chunkStart = 0;
  uint32_t chunkEnd = 0;
};

struct TevdAgent {
  TevSubscription *sub = nullptr;
  std::atomic<uint64_t> *handled = nullptr;  // records handed to this correlator
  TevStream *stream = nullptr;
  char **nameHolder = nullptr;
  int pollFd = -1;
  int numFds = 0;
};

// One read from the stream: 0 with *tev set when a record completed, 0 with
// *tev null when more bytes are wanted, else TEVD_AGENT_BROKEN.
// A step reads the pipe only when nothing read earlier is left over; leftover
// bytes do not make the pipe readable, so a caller runs a step without
// waiting while this is true.
int TevdAgent_ReassembleStep(TevStream *stream, Tev **tev);
bool TevdAgent_StreamBuffered(const TevStream *stream);

namespace tevd_agent {

// The calling agent has subscribed or given up (once per thread).
void MarkSettled();

void FreeSubscription(TevSubscription *sub);
// TEVD_AGENT_OK or TEVD_AGENT_NO_MEMORY (also when the table is full).
int AddPrefix(TevSubscription *sub, const char *word);
int AddId(TevSubscription *sub, const char *id);
// Creates a stream with a copy of `sub` and adds it to the shared list.
int CreateStream(const TevSubscription *sub, char **nameHolder, TevStream **out);
// Takes the stream off the list, closes its pipe and frees it.
int CloseStream(TevStream *s);

}  // namespace tevd_agent
