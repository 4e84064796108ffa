#include "config/settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

// The documents that name settings say what the table says.

namespace {

std::vector<std::string> lines_of(const char *document)
{
    const auto root = std::filesystem::path{VELM_TEST_DATA}.parent_path().parent_path();
    std::ifstream in{root / document};
    EXPECT_TRUE(in.is_open()) << document;
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// What a document says of one setting.
struct entry {
    std::string key, standard, nvram, meaning;
    bool operator==(const entry &) const = default;
};

void PrintTo(const entry &one, std::ostream *out)
{
    *out << one.key << " = \"" << one.standard << "\" [" << one.nvram << "] " << one.meaning;
}

std::vector<entry> table()
{
    std::vector<entry> all;
    for (const config_setting &row : config_file_settings()) {
        all.push_back({row.key, row.standard, row.nvram != nullptr ? row.nvram : "", row.meaning});
    }
    return all;
}

/// ".It Cm KEY No = [Pa] DEFAULT" of the list of keys: no key of the logger, which has its own.
std::optional<entry> item_of(const std::string &line)
{
    std::istringstream words{line};
    std::string macro, command, key, no, equals, standard;
    words >> macro >> command >> key >> no >> equals >> standard;
    if (macro != ".It" || command != "Cm" || equals != "=" || key.starts_with("logger.")) {
        return std::nullopt;
    }
    if (standard == "Pa") {
        words >> standard;
    }
    return entry{key, standard, "", ""};
}

/// The meaning is the line behind the item.
std::vector<entry> manual_page()
{
    std::vector<entry> all;
    bool open = false;
    for (const std::string &line : lines_of("docs/man/velmd.conf.5")) {
        if (auto item = item_of(line)) {
            all.push_back(std::move(*item));
            open = true;
        } else if (line.starts_with(".It") || line.starts_with(".El")) {
            open = false;
        } else if (open && line.starts_with(".Bq ")) {
            all.back().nvram = line.substr(4);
        } else if (open && all.back().meaning.empty()) {
            all.back().meaning = line;
        }
    }
    return all;
}

/// The keys and values of a text, also of lines that begin with one "#".
std::multimap<std::string, std::string> assignments(const std::vector<std::string> &lines)
{
    std::multimap<std::string, std::string> all;
    for (std::string line : lines) {
        line.erase(0, line.find_first_not_of(' '));
        line.erase(0, line.starts_with('#') ? 1 : 0);
        const std::size_t equals = line.find('=');
        const std::string key = line.substr(0, equals);
        if (equals != std::string::npos && key.find('.') != std::string::npos &&
            key.find(' ') == std::string::npos) {
            all.emplace(key, line.substr(equals + 1));
        }
    }
    return all;
}

bool is_in_table(std::string_view key)
{
    const auto rows = config_file_settings();
    return std::any_of(rows.begin(), rows.end(),
                       [key](const config_setting &row) { return key == row.key; });
}

TEST(Settings, TheManualPageHasTheTable)
{
    EXPECT_THAT(manual_page(), testing::ElementsAreArray(table()));
}

TEST(Settings, TheSampleHasEachKeyOnceWithItsDefault)
{
    std::vector<std::pair<std::string, std::string>> wanted, found;
    for (const config_setting &row : config_file_settings()) {
        wanted.emplace_back(row.key, row.standard);
    }
    for (const auto &[key, value] : assignments(lines_of("etc/velmd.conf"))) {
        if (!key.starts_with("logger.")) {
            found.emplace_back(key, value);
        }
    }
    EXPECT_THAT(found, testing::UnorderedElementsAreArray(wanted));
}

TEST(Settings, TheLoggersKeysOfTheSampleAreInTheManualPage)
{
    std::string page;
    for (const std::string &line : lines_of("docs/man/velmd.conf.5")) {
        page += line + ' ';
    }
    for (const auto &[key, value] : assignments(lines_of("etc/velmd.conf"))) {
        if (key.starts_with("logger.category.")) {
            EXPECT_THAT(page, testing::HasSubstr("logger.category. Ns Ar name"));
        } else if (key.starts_with("logger.")) {
            EXPECT_THAT(page, testing::HasSubstr(' ' + key + ' '));
        }
    }
}

class SettingsIn : public testing::TestWithParam<const char *> {};

/// The example of the README is a configuration that somebody copies.
TEST_P(SettingsIn, KnowsNoOtherKeys)
{
    const auto all = assignments(lines_of(GetParam()));
    EXPECT_FALSE(all.empty());
    for (const auto &[key, value] : all) {
        EXPECT_TRUE(is_in_table(key) || key.starts_with("logger.")) << key;
    }
}

INSTANTIATE_TEST_SUITE_P(Documents, SettingsIn, testing::Values("README.md", "etc/velmd.conf"),
                         [](const auto &row) {
                             return std::string{
                                 row.param == std::string_view{"README.md"} ? "Readme" : "Sample"};
                         });

TEST(Settings, NoKeyAndNoNameInNvramStandsTwice)
{
    std::vector<std::string> names;
    for (const entry &row : table()) {
        names.push_back(row.key);
        if (!row.nvram.empty()) {
            names.push_back(row.nvram);
        }
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

TEST(Settings, EachOneHasAMeaningInOneSentence)
{
    for (const entry &row : table()) {
        EXPECT_TRUE(row.meaning.ends_with('.')) << row.key;
        EXPECT_EQ(row.meaning.find(". "), std::string::npos) << row.key;
    }
}

} // namespace
