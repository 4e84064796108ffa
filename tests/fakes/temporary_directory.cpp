#include "fakes/temporary_directory.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

temporary_directory::temporary_directory()
{
    std::string name = (std::filesystem::temp_directory_path() / "velm_test_XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    root_ = name;
}

temporary_directory::~temporary_directory()
{
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::string temporary_directory::path() const
{
    return root_.string();
}

std::string temporary_directory::path(std::string_view name) const
{
    return (root_ / name).string();
}

std::string temporary_directory::write(std::string_view name, std::string_view content) const
{
    std::ofstream{path(name), std::ios::binary} << content;
    return path(name);
}

std::string temporary_directory::read(std::string_view name) const
{
    std::ifstream in{path(name), std::ios::binary};
    return {std::istreambuf_iterator<char>{in}, {}};
}
