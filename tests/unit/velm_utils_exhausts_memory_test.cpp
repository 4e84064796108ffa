#include "velm_utils.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdlib>
#include <vector>

#include "fakes/captured_log.h"
#include "handles/malloc.h"

namespace {

void dump_without_memory()
{
    const std::vector<std::uint8_t> dumped(8192);
    captured_log log;
    const rlimit no_growth{0, 0};
    setrlimit(RLIMIT_AS, &no_growth);
    // Blocks smaller than the dump's text, until none is left.
    for (char *volatile block = nullptr;;) {
        block = try_make_plain<char>(16384).release();
        if (block == nullptr) {
            break;
        }
    }
    velm_utils_log_hex(dumped.data(), dumped.size());
    std::_Exit(log.has("TRACE velm_utils - (no memory)") ? 0 : 1);
}

TEST(HexDump, WithoutMemorySaysSo)
{
#ifdef VELM_SANITIZED
    GTEST_SKIP() << "the sanitizer's allocator ends the process instead of returning null";
#endif
    EXPECT_EXIT(dump_without_memory(), testing::ExitedWithCode(0), "");
}

} // namespace
