// The manual pages against the programs: every option a page names is one its program accepts,
// every option a program's help offers is in its page, and every TEV* variable a page names is
// read by the program (or, *_ARGS, by the unit that runs it).
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>

#include "Harness.h"

using namespace tevdtest;

namespace {

using Set = std::set<std::string>;

Set Tokens(const std::string &text, const std::regex &re) {
  Set out;
  for (auto it = std::sregex_iterator(text.begin(), text.end(), re); it != std::sregex_iterator();
       ++it) {
    out.insert((*it)[1]);
  }
  return out;
}

// Options a page names in bold: *-e*, *--enabletevs* (lower case: not -DNAME=OFF).
Set PageOptions(const std::string &page) {
  return Tokens(page, std::regex(R"(\*(--?[a-z][a-z0-9-]*))"));
}

// Options a help text offers, after a blank, a bracket, a bar or a comma.
Set HelpOptions(const std::string &help) {
  return Tokens(help, std::regex(R"((?:^|[\s\[|(,])(--?[a-z][a-z0-9-]*))"));
}

std::string Page(const std::string &name) {
  return Slurp(std::string(TEVD_SOURCE_DIR "/docs/man/") + name + ".scd");
}

std::string Help(const ScratchRoot &root, const std::string &bin, std::vector<std::string> args) {
  Process p(root, bin, std::move(args), {}, "help");
  EXPECT_EQ(p.ExitCode(5000), 0) << bin;
  return p.Stdout();
}

void ExpectSame(const std::string &what, const Set &page, Set accepted) {
  if (accepted.count("--help") != 0) accepted.insert("-h");  // the parsers' alias, never listed
  for (const std::string &o : page) {
    EXPECT_TRUE(accepted.count(o)) << what << "'s page names " << o << ", which it does not take";
  }
  for (const std::string &o : accepted) {
    EXPECT_TRUE(page.count(o)) << what << " takes " << o << ", which its page does not name";
  }
}

// Every TEV* variable of the page is in the binary's bytes (*_ARGS: in the unit instead).
void ExpectVariablesRead(const std::string &page, const std::string &bin) {
  const std::string bytes = Slurp(bin);
  ASSERT_FALSE(bytes.empty()) << bin;
  for (const std::string &v : Tokens(page, std::regex(R"(\*\$?(TEV[A-Z0-9_]+)\*)"))) {
    if (v.size() > 5 && v.compare(v.size() - 5, 5, "_ARGS") == 0) {
      std::string unit = v.substr(0, v.size() - 5);
      for (char &c : unit) c = static_cast<char>(tolower(c));
      EXPECT_TRUE(
          Contains(Slurp(TEVD_SOURCE_DIR "/packaging/systemd/" + unit + ".service"), "$" + v));
    } else {
      EXPECT_NE(bytes.find(v), std::string::npos) << bin << " does not read " << v;
    }
  }
}

}  // namespace

TEST(ManPages, TevctlPageAndEveryCommandsHelpNameTheSameOptions) {
  ScratchRoot root;
  const std::string top = Help(root, TevctlBin(), {"--help"});
  std::string all = top;
  std::istringstream lines(top.substr(top.find("Commands:")));
  for (std::string line; std::getline(lines, line);) {
    std::smatch m;
    if (std::regex_match(line, m, std::regex(R"(  ([a-z]+) .*)"))) {
      all += Help(root, TevctlBin(), {m[1], "--help"});
    }
  }
  all += Help(root, TevctlBin(), {"scenario", "record", "--help"});
  const std::string page = Page("tevctl.1");
  ExpectSame("tevctl", PageOptions(page), HelpOptions(all));
  ExpectVariablesRead(page, TevctlBin());
}

TEST(ManPages, CompanionPagesNameWhatTheirHelpOffers) {
  ScratchRoot root;
  for (const char *name : {"tevnet", "tevfwd"}) {
    std::string upper = name;
    for (char &c : upper) c = static_cast<char>(toupper(c));
    const std::string bin =
        BinaryPath((upper + "_BIN").c_str(), (std::string("tools/") + name + "/" + name).c_str());
    if (access(bin.c_str(), X_OK) != 0) {
      TEVD_SKIP_MISSING(bin + " was not built (scripts/deps.sh companions)");
    }
    const std::string page = Page(std::string(name) + ".1");
    ExpectSame(name, PageOptions(page), HelpOptions(Help(root, bin, {"--help"})));
    ExpectVariablesRead(page, bin);
  }
}

// tevd's usage text names --help only, by design: what it accepts is its getopt table.
TEST(ManPages, TevdPageNamesItsGetoptTable) {
  const std::string src = Slurp(TEVD_SOURCE_DIR "/apps/tevd/tevdMainSetup.cpp");
  Set accepted = Tokens(src, std::regex(R"x(\{"([a-z]+)", (?:no|required)_argument)x"));
  Set longs;
  for (const std::string &o : accepted) longs.insert("--" + o);
  std::smatch shorts;
  ASSERT_TRUE(
      std::regex_search(src, shorts, std::regex(R"x(getopt_long\(argc, argv, "([a-z:]+)")x")));
  for (char c : shorts[1].str()) {
    if (c != ':') longs.insert(std::string("-") + c);
  }
  const std::string page = Page("tevd.8");
  ExpectSame("tevd", PageOptions(page), longs);
  ExpectVariablesRead(page, TevdBin());
}
