// Shared by the agent's sources only (tevdAgent*.cpp): the start-up barrier's
// mark, and setting up or taking down an agent's subscription and stream.
#pragma once

#include "tevdAgent.h"

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
