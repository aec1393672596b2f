// Compiled (never linked) by the translate_row_check test: the good table
// must build, and each TEVD_BAD_ROW variant must fail the build at the
// table's static_assert.
#include "tevdTranslate.h"

namespace {

int Handler(Tev *) { return 0; }

constexpr TevdRow kRows[] = {
    {"tev.x.good",
     Handler,
     Problem,
     TevdRead::OneCall,
     "sdl",
     "201",
     "@&!*@*@(kos.problem.x.good)%lu %s 0x%x %%",
     {"Failed %s: %d\n"}},
    {"tev.x.code", Handler, Clear, TevdRead::OneCall, "sh", "", "@&!*@*@(kos.clear.x.code)%s %s"},
    {"tev.x.state", Handler},
#if TEVD_BAD_ROW == 1  // an integer conversion for a string argument
    {"tev.x.bad", Handler, Problem, TevdRead::OneCall, "sd", "", "@&!*@*@(kos.problem.x.bad)%d %s"},
#elif TEVD_BAD_ROW == 2  // one conversion too many
    {"tev.x.bad", Handler, Problem, TevdRead::ByIndex, "s", "", "@&!*@*@(kos.problem.x.bad)%s %s"},
#elif TEVD_BAD_ROW == 3  // an audit event in a problem row
    {"tev.x.bad", Handler, Problem, TevdRead::ByIndex, "s", "", "@&!*@*@(kos.audit.x.bad)%s"},
#elif TEVD_BAD_ROW == 4  // a failure line that takes a string where the error goes
    {"tev.x.bad",
     Handler,
     Problem,
     TevdRead::ByIndex,
     "s",
     "",
     "@&!*@*@(kos.problem.x.bad)%s",
     {"Failed: %s\n"}},
#elif TEVD_BAD_ROW == 5  // a 64-bit argument for a 32-bit conversion
    {"tev.x.bad", Handler, Problem, TevdRead::OneCall, "l", "", "@&!*@*@(kos.problem.x.bad)%d"},
#elif TEVD_BAD_ROW == 6  // an order digit past the arguments
    {"tev.x.bad", Handler, Problem, TevdRead::OneCall, "ss", "12",
     "@&!*@*@(kos.problem.x.bad)%s %s"},
#endif
};
static_assert(TevdTranslate_FirstBadRow(kRows) == -1, "translation row does not fit its template");

}  // namespace
