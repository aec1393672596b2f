// Compiled (never linked) by translate_row_check: the good table must build,
// each TEVD_BAD_ROW variant must fail at the table's static_assert.
#include "tevdTranslate.h"

namespace {

int H(Tev *) { return 0; }
constexpr TevdRead One = TevdRead::OneCall, ByIdx = TevdRead::ByIndex;

constexpr TevdRow kRows[] = {
    {"tev.g", H, Problem, One, "sdl", "201", "@&!*@*@(kos.problem.g)%lu %s 0x%x %%", {"F%s%d"}},
    {"tev.x.code", H, Clear, One, "sh", "", "@&!*@*@(kos.clear.x.code)%s %s"},
    {"tev.x.state", H},
#if TEVD_BAD_ROW == 1  // an integer conversion for a string argument
    {"tev.x.bad", H, Problem, One, "sd", "", "@&!*@*@(kos.problem.x.bad)%d %s"},
#elif TEVD_BAD_ROW == 2  // one conversion too many
    {"tev.x.bad", H, Problem, ByIdx, "s", "", "@&!*@*@(kos.problem.x.bad)%s %s"},
#elif TEVD_BAD_ROW == 3  // an audit event in a problem row
    {"tev.x.bad", H, Problem, ByIdx, "s", "", "@&!*@*@(kos.audit.x.bad)%s"},
#elif TEVD_BAD_ROW == 4  // a failure line that takes a string where the error goes
    {"tev.x.bad", H, Problem, ByIdx, "s", "", "@&!*@*@(kos.problem.x.bad)%s", {"Failed: %s\n"}},
#elif TEVD_BAD_ROW == 5  // a 64-bit argument for a 32-bit conversion
    {"tev.x.bad", H, Problem, One, "l", "", "@&!*@*@(kos.problem.x.bad)%d"},
#elif TEVD_BAD_ROW == 6  // an order digit past the arguments
    {"tev.x.bad", H, Problem, One, "ss", "12", "@&!*@*@(kos.problem.x.bad)%s %s"},
#endif
};
static_assert(TevdTranslate_FirstBadRow(kRows) == -1, "translation row does not fit its template");

}  // namespace
