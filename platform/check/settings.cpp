#include "settings.h"

#include <nvram.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "handles/malloc.h"
#include "report.h"

namespace {

using std::chrono::steady_clock;

/// The longest text of a pairing that the daemon writes.
constexpr std::size_t longest_value = 2048;
/// As many as ten pairings have.
constexpr int settings_of_ten_pairings = 80;
constexpr int reads_timed = 1000;

double milliseconds_since(steady_clock::time_point begin)
{
    return std::chrono::duration<double, std::milli>(steady_clock::now() - begin).count();
}

std::string text_of(double milliseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f ms", milliseconds);
    return text;
}

bool comes_back(const std::string &name, const std::string &value)
{
    return nvram_set(name.c_str(), value.c_str()) == 0 && setting(name).value_or("") == value;
}

std::string name_of(int number)
{
    return std::string{check_setting} + '_' + std::to_string(number);
}

/// In a child: a library that keeps what it gives ends there, not here.
bool child_keeps_values()
{
    const pid_t child = fork();
    if (child == 0) {
        malloc_text{nvram_unf_get(check_setting)}.reset();
        malloc_text again{nvram_unf_get(check_setting)};
        const bool is_there = again != nullptr && *again != '\0';
        again.reset();
        _exit(is_there ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == EXIT_SUCCESS;
}

} // namespace

std::optional<std::string> setting(const std::string &name)
{
    const malloc_text value{nvram_unf_get(name.c_str())};
    return value == nullptr ? std::nullopt : std::optional<std::string>{value.get()};
}

void check_ownership()
{
    const bool is_set = nvram_set(check_setting, "ownership") == 0;
    char *const first = nvram_unf_get(check_setting);
    char *const second = nvram_unf_get(check_setting);
    if (!is_set || first == nullptr || second == nullptr) {
        report(verdict::fail, "a setting that was set can be read",
               "nvram_set must return 0 when it has set, and nvram_unf_get must give the value at "
               "once");
    } else if (first == second || !child_keeps_values()) {
        report(verdict::fail, "each value is the caller's own",
               "the daemon frees it with free(): return a copy made with malloc or strdup");
    } else {
        malloc_text{first}.reset();
        malloc_text{second}.reset();
        report(verdict::ok, "each value is the caller's own, to be freed with free()");
    }
}

void check_absent()
{
    const auto value = setting("zelkad_platform_check_absent");
    if (!value) {
        report(verdict::ok, "an absent setting is NULL");
    } else if (value->empty()) {
        report(verdict::warn, "an absent setting is an empty text",
               "the daemon takes it as absent, but return NULL");
    } else {
        report(verdict::fail, "an absent setting has a value", "return NULL");
    }
    const bool is_emptied =
        nvram_set(check_setting, "") == 0 && setting(check_setting).value_or("").empty();
    report(is_emptied ? verdict::ok : verdict::fail, "a setting can be emptied",
           is_emptied ? "" : "an unpaired phone would stay: take \"\" as a value");
}

void check_values()
{
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{255}, std::size_t{256}, longest_value}) {
        const bool is_good = comes_back(check_setting, std::string(size, 'v'));
        report(is_good ? verdict::ok : verdict::fail,
               "a value of " + std::to_string(size) + " characters",
               is_good ? "" : "a push token may have 2048 characters: make room for them");
    }
    std::string printable;
    for (char character = ' '; character <= '~'; ++character) {
        printable += character;
    }
    const struct {
        const char *what;
        std::string value;
    } texts[] = {{"every printable ASCII character", "a" + printable + "z"},
                 {"UTF-8, as in the name of a phone", "Zo\xc3\xab's \xe2\x98\x8e"},
                 {"blanks at both ends", " a "}};
    for (const auto &[what, value] : texts) {
        const bool is_good = comes_back(check_setting, value);
        report(is_good ? verdict::ok : verdict::fail, std::string{"a value with "} + what,
               is_good ? "" : "store and give every byte but zero as it is");
    }
}

void check_room()
{
    int stored = 0;
    while (stored < settings_of_ten_pairings &&
           comes_back(name_of(stored), std::string(256, 'r'))) {
        ++stored;
    }
    const bool is_enough =
        stored == settings_of_ten_pairings && setting(name_of(0)) == std::string(256, 'r');
    report(is_enough ? verdict::ok : verdict::fail,
           "room for " + std::to_string(settings_of_ten_pairings) +
               " values of 256 characters, as ten pairings take",
           is_enough ? ""
                     : "only " + std::to_string(stored) +
                           " were kept; enlarge nvram or lower pairings.limit");
    for (int i = 0; i < stored; ++i) {
        (void)nvram_set(name_of(i).c_str(), "");
    }
}

void check_commit()
{
    constexpr double slow = 200;
    constexpr double too_slow = 5000;
    (void)nvram_set(check_setting, "commit");
    const auto begin = steady_clock::now();
    const int result = nvram_commit();
    const double took = milliseconds_since(begin);
    if (result != 0) {
        report(verdict::fail, "nvram_commit returns " + std::to_string(result),
               "return 0 when all that was set survives a power cut; the daemon logs anything else "
               "as an error");
    }
    const verdict verdict = took < slow       ? verdict::ok
                            : took < too_slow ? verdict::warn
                                              : verdict::fail;
    report(verdict, "nvram_commit takes " + text_of(took),
           took < slow
               ? ""
               : "the daemon serves nobody meanwhile: write in another process, or write less");
}

void check_other_process(const char *program)
{
    (void)nvram_set(check_setting, "seen");
    std::string arguments[] = {program, "--is-seen"};
    char *const texts[] = {arguments[0].data(), arguments[1].data(), nullptr};
    pid_t child = 0;
    int status = 1;
    const bool is_seen =
        posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, texts, environ) == 0 &&
        waitpid(child, &status, 0) == child && status == 0;
    report(is_seen ? verdict::ok : verdict::fail,
           "another process sees what was set, before any commit",
           is_seen ? "" : "nvram_set must change what every process reads, at once");
}

void check_speed()
{
    constexpr double slow = 1;
    const auto begin = steady_clock::now();
    for (int i = 0; i < reads_timed; ++i) {
        (void)setting(check_setting);
    }
    const double took = milliseconds_since(begin) / reads_timed;
    report(took < slow ? verdict::ok : verdict::warn, "nvram_unf_get takes " + text_of(took),
           took < slow
               ? ""
               : "a request reads some 100 settings, and the daemon serves nobody meanwhile");
}
