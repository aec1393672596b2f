#include "PromText.h"

#include <cinttypes>
#include <cstdio>

#include "PlatformRoot.h"

void PromText::Family(const char *name, const char *type, const char *help) {
  text_ += "# HELP ";
  text_ += name;
  text_ += ' ';
  text_ += help;
  text_ += "\n# TYPE ";
  text_ += name;
  text_ += ' ';
  text_ += type;
  text_ += '\n';
}

void PromText::Sample(const char *name, const std::string &labels, uint64_t value) {
  char number[24];
  snprintf(number, sizeof number, " %" PRIu64 "\n", value);
  text_ += name;
  text_ += labels;
  text_ += number;
}

void PromText::One(const char *name, const char *type, const char *help, uint64_t value) {
  Family(name, type, help);
  Sample(name, "", value);
}

std::string PromText::Labels(const char *key, const std::string &value) {
  std::string out = "{";
  out += key;
  out += "=\"";
  for (char c : value) {
    if (c == '\\' || c == '"') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out + "\"}";
}

int PromText_WriteFile(const char *relPath, const std::string &text) {
  return PlatformRoot_ReplaceFile(PlatformRoot_Path(relPath), text);
}
