// tevctl events: the event catalogue the daemon was built with, one event or
// all, as text or as JSON (one object per line).
#include "Qprob.h"
#include "tevctl.h"
#include "tevdEvents.h"

namespace tevctl {

namespace {

const char kUsage[] =
    "Usage: tevctl events [ID] [--json]\n"
    "Lists every event tevd can post, or the one with identifier ID: its class,\n"
    "severity, text, argument labels, object, resolution, summary and note (the\n"
    "catalogue behind tevd-events(7) and tevfwd's alerts). --json prints one JSON\n"
    "object per line.\n";

std::string Quoted(const std::string &s) { return "\"" + Qprob_JsonEscape(s) + "\""; }

std::string JsonList(const char *words) {
  std::string out = "[";
  for (const std::string &w : TevdEvents_Words(words))
    out += (out.size() > 1 ? "," : "") + Quoted(w);
  return out + "]";
}

std::string Json(const TevdEventInfo &ev) {
  std::string out = "{\"id\":" + Quoted(ev.id) + ",\"class\":" + Quoted(TevdEvents_Class(ev)) +
                    ",\"severity\":" + Quoted(TevdEvents_SeverityName(ev.severity)) +
                    ",\"text\":" + Quoted(ev.text) + ",\"labels\":" + JsonList(ev.labels) +
                    ",\"object\":" + JsonList(ev.object) +
                    ",\"resolution\":{\"kind\":" + Quoted(TevdEvents_ResolutionName(ev.resolution));
  if (ev.resolution == TevdResolution::ClearedBy) out += ",\"clearedBy\":" + JsonList(ev.clearedBy);
  if (ev.resolution == TevdResolution::Lifetime)
    out += ",\"lifetimeSeconds\":" + std::to_string(ev.lifetimeSec);
  return out + "},\"summary\":" + Quoted(ev.summary) + ",\"note\":" + Quoted(ev.note) + "}";
}

std::string Text(const TevdEventInfo &ev) {
  std::string resolution = TevdEvents_ResolutionName(ev.resolution);
  if (ev.resolution == TevdResolution::ClearedBy) resolution += " by " + std::string(ev.clearedBy);
  if (ev.resolution == TevdResolution::Lifetime)
    resolution += " " + std::to_string(ev.lifetimeSec) + " s";
  return std::string(ev.id) + "\n  " + TevdEvents_Class(ev) + ", " +
         TevdEvents_SeverityName(ev.severity) + ": " + ev.summary + "\n  text: " + ev.text +
         "\n  labels: " + ev.labels +
         "\n  object: " + (ev.object[0] != '\0' ? ev.object : "(host)") +
         "\n  resolution: " + resolution + "\n  note: " + ev.note + "\n";
}

}  // namespace

int CmdEvents(const std::vector<std::string> &args) {
  const char *cmd = "events";
  ParsedArgs pa;
  // --json may follow the identifier too.
  std::vector<std::string> rest;
  bool json = false;
  for (const std::string &a : args) {
    if (a == "--json") {
      json = true;
    } else {
      rest.push_back(a);
    }
  }
  if (int rc = OpenCommand(cmd, rest, {}, kUsage, &pa); rc != kGoOn) return rc;
  if (pa.positional.size() > 1) return Fail(cmd, "takes at most one identifier (try --help)");
  if (pa.positional.size() == 1) {
    const TevdEventInfo *ev = TevdEvents_Find(pa.positional[0].c_str());
    if (ev == nullptr) return Fail(cmd, "no event %s in the catalogue", pa.positional[0].c_str());
    PrintLine(json ? Json(*ev) : Text(*ev));
    return 0;
  }
  for (const TevdEventInfo &ev : kTevdEvents) PrintLine(json ? Json(ev) : Text(ev));
  return 0;
}

}  // namespace tevctl
