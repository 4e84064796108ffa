#include "report.h"

#include <cstdio>

namespace {

struct module_state {
    bool has_failed = false;
};
module_state state;

const char *word_of(verdict verdict)
{
    switch (verdict) {
    case verdict::ok:
        return "OK  ";
    case verdict::warn:
        return "WARN";
    case verdict::fail:
        break;
    }
    return "FAIL";
}

} // namespace

void report(verdict verdict, const std::string &what, const std::string &remedy)
{
    state.has_failed = state.has_failed || verdict == verdict::fail;
    std::printf("%s %s%s%s\n", word_of(verdict), what.c_str(), remedy.empty() ? "" : ": ",
                remedy.c_str());
    std::fflush(stdout);
}

bool report_is_good()
{
    return !state.has_failed;
}
