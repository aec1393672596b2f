// The tools' one command-line parser (tevctl and its commands, tevnet,
// tevfwd). A program lists its options in a table and says how its words are
// written; the parser walks the words in order and hands each option, with
// its value, to the program. It prints nothing: every program keeps its own
// messages and exit statuses, which scripts and manual pages rely on.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace toolopt {

enum class Takes {
  Nothing,     // a flag
  Value,       // "--name value" (or "--name=value" where the syntax allows it)
  InlineOnly,  // a flag that may carry "--name=value"; the next word is never its value
};

struct Option {
  const char *name;  // as written: "--count", "-h"
  Takes takes;
};

struct Syntax {
  // "--name=value" as well as "--name value".
  bool inlineValues = false;
  // Options come first: the first word that does not begin with "--" (and is
  // not an option of the table, as "-h"), or the word after "--", starts the
  // positional arguments. Without it, every word must be an option.
  bool positionals = false;
};

struct Problem {
  enum Kind { None, Unknown, MissingValue, UnwantedValue } kind = None;
  std::string word;  // as given: "--once=1"
  std::string name;  // without an inline value: "--once"
};

// Called once per option in the order given; `value` is null when the word
// carried none. False stops the parse (the program has reported why).
using Handler = std::function<bool(const Option &option, const std::string *value)>;

enum class Outcome { Done, Stopped, Bad };

// Done: every option was handled and `*positional` (when asked for) indexes
// the first positional argument. Stopped: a handler said so. Bad: `*problem`
// says what was wrong with which word.
Outcome Parse(const std::vector<std::string> &words, const std::vector<Option> &table,
              const Syntax &syntax, const Handler &handle, Problem *problem,
              size_t *positional = nullptr);

// The same over a main's argv (without argv[0]).
Outcome ParseMain(int argc, char **argv, const std::vector<Option> &table, const Syntax &syntax,
                  const Handler &handle, Problem *problem);

}  // namespace toolopt
