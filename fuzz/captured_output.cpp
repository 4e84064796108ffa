#include "captured_output.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

namespace {

struct module_state {
    bool captures = false;
    std::string file_name;
    const char *syslog_ident = nullptr;
    std::size_t ident_length = 0;
};
module_state state;

template <typename Function>
Function *real(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

void read_ident()
{
    state.ident_length = state.syslog_ident == nullptr ? 0 : std::strlen(state.syslog_ident);
}

} // namespace

// <syslog.h> is left out: with fortified builds it defines syslog() itself.
extern "C" {

std::FILE *fopen(const char *path, const char *mode)
{
    if (!state.captures || *mode != 'a') {
        static auto *const real_fopen = real<std::FILE *(const char *, const char *)>("fopen");
        return real_fopen(path, mode);
    }
    state.file_name = path;
    return nullptr;
}

int puts(const char *text)
{
    static auto *const real_puts = real<int(const char *)>("puts");
    return state.captures ? 1 : real_puts(text);
}

void openlog(const char *ident, int, int)
{
    state.syslog_ident = ident;
}

void closelog()
{
    state.syslog_ident = nullptr;
}

void syslog(int, const char *, ...)
{
    read_ident();
}

void __syslog_chk(int, int, const char *, ...)
{
    read_ident();
}
}

captured_output::captured_output()
{
    state.captures = true;
    state.file_name.clear();
}

captured_output::~captured_output()
{
    state.captures = false;
}

const std::string &captured_output::file_name() const
{
    return state.file_name;
}

bool captured_output::syslog_is_open() const
{
    return state.syslog_ident != nullptr;
}
