#include "check/categories.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>

// Each source file names its category itself.

namespace {

std::set<std::string> categories_of_sources()
{
    const auto root = std::filesystem::path{VELM_TEST_DATA}.parent_path().parent_path();
    const std::regex named{R"rx(log_category\[\] = "([^"]+)")rx"};
    std::set<std::string> all;
    for (const auto &file : std::filesystem::recursive_directory_iterator{root / "src"}) {
        if (!file.is_regular_file()) {
            continue;
        }
        std::ifstream in{file.path()};
        const std::string text{std::istreambuf_iterator<char>{in}, {}};
        for (std::sregex_iterator found{text.begin(), text.end(), named}, end; found != end;
             ++found) {
            all.insert((*found)[1]);
        }
    }
    return all;
}

TEST(Categories, AreThoseOfTheSources)
{
    const auto known = check_log_categories();
    EXPECT_THAT(std::set<std::string>(known.begin(), known.end()),
                testing::ContainerEq(categories_of_sources()));
}

TEST(Categories, StandOnce)
{
    const auto known = check_log_categories();
    EXPECT_EQ(std::set<std::string_view>(known.begin(), known.end()).size(), known.size());
}

} // namespace
