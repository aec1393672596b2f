// The tools' command-line parser (see ToolOptions.h).
#include "ToolOptions.h"

namespace toolopt {

namespace {

const Option *Find(const std::vector<Option> &table, const std::string &name) {
  for (const Option &o : table) {
    if (name == o.name) return &o;
  }
  return nullptr;
}

bool StartsOptions(const std::string &word) {
  return word.size() >= 3 && word.compare(0, 2, "--") == 0;
}

}  // namespace

Outcome Parse(const std::vector<std::string> &words, const std::vector<Option> &table,
              const Syntax &syntax, const Handler &handle, Problem *problem, size_t *positional) {
  size_t i = 0;
  for (; i < words.size(); ++i) {
    const std::string &word = words[i];
    if (syntax.positionals) {
      if (word == "--") {
        ++i;
        break;
      }
      if (!StartsOptions(word) && Find(table, word) == nullptr) break;
    }
    std::string name = word, value;
    bool inlineValue = false;
    size_t eq = word.find('=');
    if (syntax.inlineValues && StartsOptions(word) && eq != std::string::npos) {
      name = word.substr(0, eq);
      value = word.substr(eq + 1);
      inlineValue = true;
    }
    const Option *opt = Find(table, name);
    Problem::Kind wrong = Problem::None;
    if (opt == nullptr) {
      wrong = Problem::Unknown;
    } else if (opt->takes == Takes::Nothing && inlineValue) {
      wrong = Problem::UnwantedValue;
    } else if (opt->takes == Takes::Value && !inlineValue) {
      if (i + 1 >= words.size()) {
        wrong = Problem::MissingValue;
      } else {
        value = words[++i];
        inlineValue = true;
      }
    }
    if (wrong != Problem::None) {
      *problem = {wrong, word, name};
      return Outcome::Bad;
    }
    if (!handle(*opt, inlineValue ? &value : nullptr)) return Outcome::Stopped;
  }
  if (positional != nullptr) *positional = i;
  return Outcome::Done;
}

Outcome ParseMain(int argc, char **argv, const std::vector<Option> &table, const Syntax &syntax,
                  const Handler &handle, Problem *problem) {
  std::vector<std::string> words(argv + 1, argv + argc);
  return Parse(words, table, syntax, handle, problem);
}

}  // namespace toolopt
