/// nvram: reads and changes the settings of the store from a shell. See nvram(1).

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "nvram_store.h"

namespace {

constexpr int exit_ok = 0;
constexpr int exit_absent = 1;
constexpr int exit_usage = 2;
constexpr int exit_failure = 3;

constexpr char usage_text[] = "usage: nvram get NAME\n"
                              "       nvram set NAME=VALUE ...\n"
                              "       nvram unset NAME ...\n"
                              "       nvram show\n"
                              "       nvram commit\n"
                              "       nvram revert\n";

using arguments = std::span<char *const>;

int usage()
{
    std::fputs(usage_text, stderr);
    return exit_usage;
}

int bad_name()
{
    std::fprintf(stderr, "nvram: %s\n", nvram_store_error_text(nvram_bad_name));
    return usage();
}

int fail(const char *what, int rc)
{
    std::fprintf(stderr, "nvram: cannot %s: %s\n", what, nvram_store_error_text(rc));
    return exit_failure;
}

int finish(const char *what, int rc)
{
    return rc == 0 ? exit_ok : fail(what, rc);
}

/// Exits with success only when all of it has reached standard output.
int finish_output()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::perror("nvram: standard output");
        return exit_failure;
    }
    return exit_ok;
}

/// A value as `show` prints it: on one line, so that no value can look like another setting.
std::string one_line(std::string_view value)
{
    std::string out;
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (byte < 0x20 || byte == 0x7f) {
            std::array<char, 8> escape{};
            std::snprintf(escape.data(), escape.size(), "\\%03o", static_cast<unsigned>(byte));
            out += escape.data();
        } else {
            out += c;
        }
    }
    return out;
}

int command_get(nvram_store &store, arguments names)
{
    const std::string *const value = store.find(names[0]);
    if (value == nullptr) {
        return store.fault() == 0 ? exit_absent : fail("get", store.fault());
    }
    std::fwrite(value->data(), 1, value->size(), stdout);
    std::fputc('\n', stdout);
    return finish_output();
}

int command_set(nvram_store &store, arguments assignments)
{
    std::vector<nvram_change> changes;
    for (const std::string_view assignment : assignments) {
        const std::size_t equals = assignment.find('=');
        const std::string_view name = assignment.substr(0, equals);
        if (equals == std::string_view::npos) {
            return usage();
        }
        if (!nvram_name_is_valid(name)) {
            return bad_name();
        }
        changes.push_back({name, assignment.substr(equals + 1)});
    }
    return finish("set", store.apply(changes));
}

int command_unset(nvram_store &store, arguments names)
{
    std::vector<nvram_change> changes;
    for (const std::string_view name : names) {
        if (!nvram_name_is_valid(name)) {
            return bad_name();
        }
        changes.push_back({name, std::nullopt});
    }
    return finish("unset", store.apply(changes));
}

int command_show(nvram_store &store, arguments)
{
    const nvram_settings &settings = store.settings();
    if (store.fault() != 0) {
        return fail("show", store.fault());
    }
    for (const auto &[name, value] : settings) {
        std::printf("%.*s=%s\n", static_cast<int>(name.size()), name.data(),
                    one_line(value).c_str());
    }
    return finish_output();
}

int command_commit(nvram_store &store, arguments)
{
    return finish("commit", store.commit());
}

int command_revert(nvram_store &store, arguments)
{
    return finish("revert", store.revert());
}

struct command_row {
    std::string_view name;
    std::size_t arguments_min, arguments_max;
    int (*run)(nvram_store &store, arguments rest);
};

constexpr std::size_t any_number = static_cast<std::size_t>(-1);
// clang-format off
constexpr command_row commands[] = {
    {"get",    1, 1,          command_get},
    {"set",    1, any_number, command_set},
    {"unset",  1, any_number, command_unset},
    {"show",   0, 0,          command_show},
    {"commit", 0, 0,          command_commit},
    {"revert", 0, 0,          command_revert},
};
// clang-format on

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        return usage();
    }
    const arguments rest{argv + 2, static_cast<std::size_t>(argc - 2)};
    const auto *const row =
        std::find_if(std::begin(commands), std::end(commands),
                     [argv](const command_row &command) { return command.name == argv[1]; });
    if (row == std::end(commands) || rest.size() < row->arguments_min ||
        rest.size() > row->arguments_max) {
        return usage();
    }
    return row->run(nvram_store_of_environment(), rest);
}
