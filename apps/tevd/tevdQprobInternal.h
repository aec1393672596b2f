// What the immediate send path and the retry queue share.
#pragma once

// True when errno, after a failed send, says the agent did not take the
// message in time (as opposed to being absent).
bool TevdQprob_LastSendTimedOut(void);
// Records whether the agent is taken as stuck; logs the change to stuck once.
void TevdQprob_NoteStuck(bool stuck);

void TevdQprobRetry_Init(void);
// Empties the retry list: the posting state's test reset (tevdQprob.h) starts from nothing.
void TevdQprobRetry_Clear(void);
