#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/daemon_engine.h"
#include "fakes/fake_clock.h"
#include "file/common_file.h"

/// The daemon's own verification, many times in one process, on objects of the caller's.

namespace {

constexpr char usage[] =
    "usage: velm-bench attest|assert|integrity DIR N\n"
    "       velm-bench round [--quick] [--rounds N]\n"
    "       velm-bench growth [--quick] [--axis NAME]\n"
    "Runs the daemon's verification N times on files of DIR and prints one line,\n"
    "\"us_per_op WALL CPU\": microseconds an operation, by the clock and of the processor.\n"
    "\n"
    "  attest     attestation.cbor, cdh.bin (its client data hash), root.pem, appid.txt\n"
    "  assert     assertion.cbor, body_sha256.bin (its client data hash), pubkey.der\n"
    "             (SubjectPublicKeyInfo), appid.txt\n"
    "  integrity  token.jwe, dec.jwk, ver.jwk\n"
    "\n"
    "An operation is what a request makes of the objects: a fresh validator, the stored key\n"
    "decoded, and for a token the way through the event loop; the log is off. Reading the pairing\n"
    "from nvram is no part of it.\n"
    "\n"
    "An attestation counts only while its certificates are valid: for an old one give the clock\n"
    "with faketime(1). A token is judged by every rule of the verdict, but the files hold no\n"
    "request: message digest, package name and clock are taken from the verdict itself.\n"
    "\n"
    "\"round\" and \"growth\" measure a whole daemon in a network namespace, as root:\n"
    "bench/README.md says how.\n"
    "\n"
    "Exit status: 0, or 1 when an object is refused or a file is missing, with the reasons.\n";

constexpr long most_operations = 100'000'000;

[[noreturn]] void give_up(const std::string &why)
{
    std::fprintf(stderr, "velm-bench: %s\n", why.c_str());
    std::exit(1);
}

std::string file_text(const std::string &directory, const char *name)
{
    const std::string path = directory + "/" + name;
    auto content = read_binary_file(path.c_str());
    if (!content.has_value() || content->empty()) {
        give_up("cannot read " + path);
    }
    return std::move(*content);
}

std::vector<std::uint8_t> file_bytes(const std::string &directory, const char *name)
{
    const std::string text = file_text(directory, name);
    return {text.begin(), text.end()};
}

/// Without the line ending that editors put behind it.
std::string file_line(const std::string &directory, const char *name)
{
    std::string text = file_text(directory, name);
    text.erase(text.find_last_not_of("\r\n") + 1);
    return text;
}

void engine_start(const daemon_engine_wish &wish)
{
    if (!daemon_engine_start(wish)) {
        give_up("the daemon does not take these keys");
    }
}

using verification = std::function<bool()>;

verification attest_prepare(const std::string &directory)
{
    daemon_engine_wish wish;
    wish.ios_app_id = file_line(directory, "appid.txt");
    wish.ios_root_pem = file_text(directory, "root.pem");
    engine_start(wish);
    return [object = file_bytes(directory, "attestation.cbor"),
            hash = file_bytes(directory, "cdh.bin")] { return daemon_engine_attest(object, hash); };
}

verification assert_prepare(const std::string &directory)
{
    daemon_engine_wish wish;
    wish.ios_app_id = file_line(directory, "appid.txt");
    engine_start(wish);
    daemon_engine_pair(file_bytes(directory, "pubkey.der"));
    auto object = file_bytes(directory, "assertion.cbor");
    auto hash = file_bytes(directory, "body_sha256.bin");
    return [object = std::move(object), hash = std::move(hash)] {
        return daemon_engine_assert(object, hash);
    };
}

void reasons_print(const std::vector<std::string> &log)
{
    for (const std::string &line : log) {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

verification integrity_prepare(const std::string &directory)
{
    daemon_engine_wish wish;
    wish.decryption_jwk = file_text(directory, "dec.jwk");
    wish.verification_jwk = file_text(directory, "ver.jwk");
    const std::string text = file_line(directory, "token.jwe");
    std::vector<std::uint8_t> token{text.begin(), text.end()};
    std::optional<token_binding> binding;
    reasons_print(daemon_log_of([&] { binding = token_binding_read(token, wish); }));
    if (!binding.has_value()) {
        give_up("refused: the token cannot be opened, or names no package, nonce or time");
    }
    wish.android_package_name = binding->package_name;
    engine_start(wish);
    fake_clock_set(binding->timestamp_s);
    return [token = std::move(token), digest = std::move(binding->message_digest)] {
        return daemon_engine_judge_token(token, digest);
    };
}

bool is_about_validity(const std::string &line)
{
    return line.ends_with("certificate has expired") ||
           line.ends_with("certificate is not yet valid");
}

/// Once, outside the time that counts and with the daemon's log on: what it refuses ends here.
void try_out(const verification &operation)
{
    bool accepted = false;
    const auto log = daemon_log_of([&] { accepted = operation(); });
    if (accepted) {
        return;
    }
    reasons_print(log);
    if (std::any_of(log.begin(), log.end(), is_about_validity)) {
        give_up("refused: a certificate is not valid at this time; faketime(1) sets another");
    }
    give_up("refused");
}

/// From the kernel itself: what faketime does to the clock must not reach the measurement.
double now_us(clockid_t clock)
{
    timespec now{};
    syscall(SYS_clock_gettime, clock, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

void measure(const verification &operation, long count)
{
    const double wall = now_us(CLOCK_MONOTONIC);
    const double cpu = now_us(CLOCK_PROCESS_CPUTIME_ID);
    for (long i = 0; i < count; ++i) {
        if (!operation()) {
            give_up("refused at operation " + std::to_string(i + 1));
        }
    }
    const auto operations = static_cast<double>(count);
    const double cpu_each = (now_us(CLOCK_PROCESS_CPUTIME_ID) - cpu) / operations;
    const double wall_each = (now_us(CLOCK_MONOTONIC) - wall) / operations;
    std::printf("us_per_op %.3f %.3f\n", wall_each, cpu_each);
}

struct kind_row {
    std::string_view name;
    verification (*prepare)(const std::string &directory);
};
constexpr kind_row kinds[] = {
    {"attest", attest_prepare},
    {"assert", assert_prepare},
    {"integrity", integrity_prepare},
};

std::optional<long> count_parse(std::string_view text)
{
    long count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    const bool whole = error == std::errc{} && end == text.data() + text.size();
    return whole && count > 0 && count <= most_operations ? std::optional{count} : std::nullopt;
}

/// Those with a whole daemon, its phones and its cloud are programs in python.
struct scenario_row {
    std::string_view name;
    const char *module;
};
constexpr scenario_row scenarios[] = {
    {"round", "velm_bench.rounds"},
    {"growth", "velm_bench.growth"},
};

/// Becomes that program.
int scenario_run(const scenario_row &row, std::span<char *const> arguments)
{
    constexpr char python[] = "/usr/bin/python3";
    std::vector<std::string> words = {python, "-B", "-m", row.module, "--build", VELM_BENCH_BUILD};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char *> given;
    for (std::string &word : words) {
        given.push_back(word.data());
    }
    given.push_back(nullptr);
    setenv("PYTHONPATH", VELM_BENCH_SOURCE "/sim:" VELM_BENCH_SOURCE "/bench", 1);
    execv(python, given.data());
    give_up(std::string{"cannot run "} + python);
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view first = argc > 1 ? argv[1] : "";
    const auto scenario =
        std::find_if(std::begin(scenarios), std::end(scenarios),
                     [first](const scenario_row &row) { return row.name == first; });
    if (scenario != std::end(scenarios)) {
        return scenario_run(*scenario, std::span{argv, static_cast<std::size_t>(argc)}.subspan(2));
    }
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(usage, stdout);
        return 0;
    }
    const std::string_view name = argc == 4 ? argv[1] : "";
    const auto kind = std::find_if(std::begin(kinds), std::end(kinds),
                                   [name](const kind_row &row) { return row.name == name; });
    const auto count = count_parse(argc == 4 ? argv[3] : "");
    if (kind == std::end(kinds) || !count.has_value()) {
        std::fputs(usage, stderr);
        return 1;
    }
    const verification operation = kind->prepare(argv[2]);
    try_out(operation);
    measure(operation, *count);
    return 0;
}
