#include "tools/reload/changes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tools/reload/rights.h"
#include "tools/reload/target.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ReloadChanges : public testing::Test {
  protected:
    ReloadChanges()
    {
        before.settings = {{"a", "1", "file"}, {"b", "2", "default"}};
        before.files = {{"k", "/p", std::nullopt, true, std::nullopt}};
        before.certificate = control_certificate{"CN=a", "AB", {}, {}};
        after = before;
    }

    control_status before{}, after{};
};

TEST_F(ReloadChanges, OfNothingAreNone)
{
    EXPECT_THAT(reload_changes(before, after), IsEmpty());
    after.settings[0].source = "nvram"; // the value is the same
    EXPECT_THAT(reload_changes(before, after), IsEmpty());
}

TEST_F(ReloadChanges, NameSettingCertificateAndFile)
{
    after.settings[1].value = "3\n";
    after.settings.push_back({"c", "new", "file"});
    after.certificate->sha256 = "CD";
    after.files[0].usable = false;
    EXPECT_THAT(reload_changes(before, after),
                ElementsAre("b: 2 -> 3?", "c: nothing -> new", "certificate: AB -> CD",
                            "/p cannot be used now"));
}

TEST_F(ReloadChanges, ACertificateMayGo)
{
    after.certificate.reset();
    EXPECT_THAT(reload_changes(before, after), ElementsAre("certificate: AB -> nothing"));
}

struct pid_case {
    const char *name, *text;
    std::optional<pid_t> pid;
};
class ReloadPidFile : public testing::TestWithParam<pid_case> {};

TEST_P(ReloadPidFile, HasANumber)
{
    const std::string path = testing::TempDir() + "/velmctl-pid-" + std::to_string(getpid());
    std::ofstream{path} << GetParam().text;
    EXPECT_EQ(reload_pid_of_file(path), GetParam().pid);
    std::filesystem::remove(path);
    EXPECT_EQ(reload_pid_of_file(path), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Texts, ReloadPidFile,
                         testing::Values(pid_case{"Number", "4711\n", 4711},
                                         pid_case{"NoNewline", "4711", 4711},
                                         pid_case{"Empty", "", std::nullopt},
                                         pid_case{"Word", "velmd\n", std::nullopt},
                                         pid_case{"Init", "1\n", std::nullopt},
                                         pid_case{"Group", "-4711\n", std::nullopt},
                                         pid_case{"TooLarge", "99999999999\n", std::nullopt}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST(ReloadTarget, IsTheDaemonOrNobody)
{
    reload_target target;
    std::string problem;
    EXPECT_FALSE(target.hold(getpid(), problem));
    EXPECT_EQ(problem, "process " + std::to_string(getpid()) + " is not velmd: it gets no signal");
}

TEST(ReloadRights, AreTheEffectiveOnes)
{
    const auto rights = reload_rights_of_text("Name:\tvelmd\nUid:\t1\t2\t3\t4\nGid:\t5\t6\t7\t8\n"
                                              "FDSize:\t64\nGroups:\t9 10 \nVmPeak:\t1 kB\n");
    ASSERT_TRUE(rights.has_value());
    EXPECT_EQ(rights->user, 2U);
    EXPECT_EQ(rights->group, 6U);
    EXPECT_THAT(rights->groups, ElementsAre(9U, 10U));
    EXPECT_FALSE(rights->capabilities.has_value());
    EXPECT_FALSE(reload_rights_of_text("Uid:\t1\t2\n").has_value());
    EXPECT_EQ(reload_rights_of_text("Uid:\t0\t0\nGid:\t0\t0\nGroups:\t\n"
                                    "CapPrm:\t0000000000000001\nCapEff:\t0000010000000006\n")
                  ->capabilities,
              std::uint64_t{0x10000000006});
}

TEST(ReloadRights, OfThisProcessStayAsTheyAre)
{
    const uid_t user = geteuid();
    const auto rights = reload_rights_of(getpid());
    ASSERT_TRUE(rights.has_value());
    EXPECT_EQ(rights->user, user);
    EXPECT_TRUE(reload_run_with(std::nullopt, [] { return true; }));
    EXPECT_FALSE(reload_run_with(std::nullopt, [] { return false; }));
    if (user == 0) {
        const reload_rights other{65534, 65534, {}};
        EXPECT_TRUE(reload_run_with(other, [] { return geteuid() == 65534 && getuid() == 65534; }));
    }
    EXPECT_EQ(geteuid(), user);
}

TEST(ReloadRights, OfRootWithoutCapabilitiesOpenNoFileOfOthers)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can take the rights of others";
    }
    const std::string path = testing::TempDir() + "/velmctl-shut-" + std::to_string(getpid());
    std::ofstream{path} << "text";
    std::filesystem::permissions(path, std::filesystem::perms::none);
    const auto opens = [&path] { return std::ifstream{path}.good(); };
    EXPECT_TRUE(reload_run_with(reload_rights{0, 0, {}}, opens));
    EXPECT_FALSE(reload_run_with(reload_rights{0, 0, {}, 0}, opens));
    constexpr std::uint64_t dac_override = 1U << 1;
    EXPECT_TRUE(reload_run_with(reload_rights{65534, 65534, {}, dac_override}, opens));
    EXPECT_FALSE(reload_run_with(reload_rights{65534, 65534, {}}, opens));
    std::filesystem::remove(path);
}

} // namespace
