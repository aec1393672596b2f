// What the forwarder knows about tevd's events: the daemon's templates (taken
// from its sources at build time), label names for each event's arguments
// derived from the template's words, and which event resolves which.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "MsgFmt.h"

namespace tevfwd {

struct EventTemplate {
  const char *id;    // "kos.problem.net.hwnic.linkstate.down"
  const char *text;  // the printf text of the daemon's log line
};

// Every template of the daemon, sorted by id.
const std::vector<EventTemplate> &Templates();
// The template of `id`, or null for an event the daemon's sources do not post.
const EventTemplate *FindTemplate(const std::string &id);

// Label names for the arguments of a template's text, in argument order:
// the nearest meaningful word before each conversion ("Physical NIC %s" ->
// "nic"), lower case, made unique; "argN" when there is none. Never one of
// the labels the forwarder sets itself.
std::vector<std::string> ArgLabelNames(const char *text, size_t numArgs);

// The description: the event's text as the daemon's log line shows it, or,
// for an event without a template, its identifier and arguments.
std::string Describe(const std::string &id, const std::vector<MsgFmt_Value> &args);
// One argument as label text.
std::string ArgText(const MsgFmt_Value &v);

// One row of the pairing table: when `resolver` arrives, the firing
// `problem` of the same host whose arguments `problemArgs` equal the
// resolver's `resolverArgs` (digits, argument indices, position by position)
// is resolved.
struct ClearPair {
  const char *resolver;
  const char *problem;
  const char *resolverArgs;
  const char *problemArgs;
};
const std::vector<ClearPair> &ClearPairs();
// True when `id` resolves something (it is then never raised itself).
bool IsResolver(const std::string &id);

}  // namespace tevfwd
