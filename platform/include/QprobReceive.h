// The management agent's side of one qprob connection: the daemon connects,
// writes one message and closes, so a message is every byte up to the
// sender's close. tevfwd, `tevctl sink`, the scenario runner and the tests'
// stand-in agent all read it here; each decodes it with Qprob_Decode and
// words its own diagnostics.
#pragma once

#include <cstddef>
#include <string>

// Far above any message the daemon builds (its largest is 18736 bytes); a
// sender that goes beyond it is not the daemon.
constexpr size_t kQprobReceiveMax = 16u << 20;

enum class QprobRead {
  Whole,     // the sender closed: `data` holds the message
  Pending,   // (Qprob_ReadAvailable) no more bytes yet, the sender is still there
  TimedOut,  // (Qprob_ReadToEnd) the time ran out before the sender closed
  TooLarge,  // more than `maxBytes`; `data` holds what fitted
  Failed,    // a read or wait failed; *error holds its errno
};

// Appends what `fd` holds now to `data`, never waiting (MSG_DONTWAIT): for a
// caller that polls many connections at once.
QprobRead Qprob_ReadAvailable(int fd, size_t maxBytes, std::string *data, int *error);

// Appends to `data` until the sender closes, waiting at most `timeoutMs` in
// all (-1: no limit).
QprobRead Qprob_ReadToEnd(int fd, int timeoutMs, size_t maxBytes, std::string *data, int *error);
