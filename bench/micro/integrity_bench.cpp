#include <benchmark/benchmark.h>

#include <string>
#include <string_view>

#include "common/bare_token.h"
#include "common/daemon_engine.h"
#include "fakes/app_attest_samples.h"
#include "fakes/fake_clock.h"

/// A Play Integrity token, opened and judged on the device, beside the work in it that nobody can
/// leave out.

namespace {

struct sample {
    daemon_engine_wish keys;
    test_bytes token;
    token_binding binding;
};

sample sample_load()
{
    sample made;
    made.keys.decryption_jwk = test_data_text("play_integrity/dec.jwk");
    made.keys.verification_jwk = test_data_text("play_integrity/ver.jwk");
    std::string token = test_data_text("play_integrity/token.jwe");
    token.erase(token.find_last_not_of("\r\n") + 1);
    made.token.assign(token.begin(), token.end());
    made.binding = token_binding_read(made.token, made.keys).value_or(token_binding{});
    made.keys.android_package_name = made.binding.package_name;
    return made;
}

void integrity_velmd(benchmark::State &state)
{
    const sample token = sample_load();
    if (!daemon_engine_start(token.keys)) {
        state.SkipWithError("no engine");
    }
    fake_clock_set(token.binding.timestamp_s);
    for (auto _ : state) {
        if (!daemon_engine_judge_token(token.token, token.binding.message_digest)) {
            state.SkipWithError("refused");
            break;
        }
    }
    fake_clock_reset();
}

void integrity_bare(benchmark::State &state)
{
    const sample from = sample_load();
    const std::string_view text{reinterpret_cast<const char *>(from.token.data()),
                                from.token.size()};
    bare_token token{text, from.keys.decryption_jwk, from.keys.verification_jwk};
    for (auto _ : state) {
        if (!token.open()) {
            state.SkipWithError("refused");
            break;
        }
    }
}

BENCHMARK(integrity_velmd)->Name("integrity/velmd");
BENCHMARK(integrity_bare)->Name("integrity/bare");

} // namespace
