/// Runs a fuzz target over files, once each: the corpus as a test, without libFuzzer.
/// usage: NAME_replay FOLDER|FILE...

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace fs = std::filesystem;

namespace {

std::vector<fs::path> files_of(const fs::path &path)
{
    if (!fs::is_directory(path)) {
        return {path};
    }
    std::vector<fs::path> files;
    for (const auto &entry : fs::directory_iterator{path}) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool run(const fs::path &path)
{
    std::ifstream file{path, std::ios::binary};
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> content{std::istreambuf_iterator<char>{file}, {}};
    // A heap block of just this size, so that a read behind its end does not go unseen.
    const std::vector<std::uint8_t> exact(content.begin(), content.end());
    // The last line of a run that ends in a crash names the input.
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    std::size_t count = 0;
    LLVMFuzzerTestOneInput(nullptr, 0);
    for (const char *argument : std::span{argv, static_cast<std::size_t>(argc)}.subspan(1)) {
        for (const fs::path &path : files_of(argument)) {
            if (!run(path)) {
                return 1;
            }
            ++count;
        }
    }
    std::printf("%zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
