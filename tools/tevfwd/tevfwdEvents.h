// What the forwarder knows about tevd's events, all from the event catalogue
// (apps/tevd/events/tevdEvents.def): label names of each event's arguments,
// label values, descriptions, and which events an event resolves.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "MsgFmt.h"
#include "tevdEvents.h"

namespace tevfwd {

// Label names for `numArgs` arguments of `ev`: the catalogue's, and "argN"
// for an event it does not know (null) or an argument it does not name.
std::vector<std::string> ArgLabelNames(const TevdEventInfo *ev, size_t numArgs);

// The description: the event's text as the daemon's log line shows it, or,
// for an event without a row, its identifier and arguments.
std::string Describe(const std::string &id, const std::vector<MsgFmt_Value> &args);
// One argument as the daemon formats it.
std::string ArgText(const MsgFmt_Value &v);
// One argument as a label value: a quoted list ("\"pg-a\", \"pg-b\"", as the
// daemon writes port-group and datastore lists) becomes its items joined by
// commas (pg-a,pg-b); any other text is kept as it is.
std::string LabelValue(const std::string &argText);
// True when every comma-separated item of `alertValue` is among those of
// `recoveryValue`: how an object label of an alert matches a recovery's.
bool ItemsCovered(const std::string &alertValue, const std::string &recoveryValue);

// The rows whose CLEARED_BY names `id`.
std::vector<const TevdEventInfo *> Resolves(const std::string &id);

}  // namespace tevfwd
