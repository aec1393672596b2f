// Logger agent: would log every observation of a fixed set of domains. Its
// list holds eleven words against a subscription limit of ten, so it fails
// initialisation; the list stays at eleven deliberately.
#include <cstdlib>
#include <cstring>

#include "tevdAgent.h"
#include "tevdLog.h"

void TevdLogger_Start(void) {
  static const std::vector<std::string> kWords = {"user", "internal", "external", "net",
                                                  "scsi", "kfs",      "cpu",      "hardware",
                                                  "mem",  "test",     "migrate"};
  char *name = Str_Asprintf(nullptr, "%sLogger", "LogAll");
  if (name == nullptr) {
    name = strdup("LogAll");
  }
  TevdAgent *agent = nullptr;
  if (name == nullptr || TevdAgent_Init(name, kWords, {}, &agent) != 0) {
    free(name);
    return;
  }
  Tev *tev = nullptr;
  while (TevdAgent_WaitTev(agent, &tev) == 0) {
    TevdLog_Tev(tev);
    Tev_Free(tev);
  }
  TevdAgent_Cleanup(agent);
  free(name);
}
