#include "check/writes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "fakes/fake_nvram.h"
#include "fakes/temporary_directory.h"
#include "found.h"
#include "velm_config.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Writes : public testing::Test {
  protected:
    Writes()
    {
        fake_nvram = {};
        load("");
    }

    /// Keys behind a pid file and a socket that can be made.
    void load(const std::string &content)
    {
        subject_.config_path = directory_.write(
            "velmd.conf", "process.pidfile=" + directory_.path("pid") +
                              "\nlocation.policy.ipc.sock=" + directory_.path("new/deep/sock") +
                              "\n" + content);
        subject_.pairs = conffile_account_for(subject_.config_path.c_str(), &subject_.file);
        velm_config_set_defaults(&subject_.config);
        velm_config_load_pairs(&subject_.config, subject_.pairs);
    }

    std::vector<std::string> found_in(const std::string &content)
    {
        load(content);
        check_findings findings;
        check_writes(subject_, &findings);
        std::vector<std::string> all = found(std::move(findings));
        for (std::string &line : all) {
            const std::size_t at = line.find(directory_.path());
            line.replace(at == std::string::npos ? 0 : at,
                         at == std::string::npos ? 0 : directory_.path().size(), "D");
        }
        return all;
    }

    temporary_directory directory_;
    check_subject subject_;
};

TEST_F(Writes, WhereTheyCanBeMadeNothingIsSaidAndNothingMade)
{
    EXPECT_THAT(found_in("logger.file=yes\nlogger.file.name=" + directory_.path("log") + "\n"),
                IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(directory_.path("pid")));
    EXPECT_FALSE(std::filesystem::exists(directory_.path("new")));
    EXPECT_FALSE(std::filesystem::exists(directory_.path("log")));
}

TEST_F(Writes, OfAPidFile)
{
    EXPECT_THAT(found_in("process.pidfile=\n"),
                ElementsAre("D/velmd.conf:3: process.pidfile: no file is named"));
    EXPECT_THAT(found_in("process.pidfile=" + directory_.path() + "\n"),
                ElementsAre("D: cannot be written: Is a directory (process.pidfile)"));
    EXPECT_THAT(
        found_in("process.pidfile=" + directory_.path("a/b") + "\n"),
        ElementsAre("D/a/b: cannot be written: No such file or directory (process.pidfile)"));
    EXPECT_THAT(found_in("process.pidfile=\nprocess.daemonize=no\n"), IsEmpty());
}

TEST_F(Writes, OfASocket)
{
    directory_.write("file", "");
    EXPECT_THAT(
        found_in("location.policy.ipc.sock=" + directory_.path("file") + "\n"),
        ElementsAre("D/file: it is no socket, and is left alone (location.policy.ipc.sock)"));
    EXPECT_THAT(found_in("location.policy.ipc.sock=" + directory_.path("file/sock") + "\n"),
                ElementsAre("D/file/sock: no socket can be made here: Not a directory "
                            "(location.policy.ipc.sock)"));
    EXPECT_THAT(found_in("location.policy.ipc.sock=\n"),
                ElementsAre("D/velmd.conf:3: location.policy.ipc.sock: no path is given"));
}

TEST_F(Writes, OfALog)
{
    EXPECT_THAT(found_in("logger.file=yes\n"),
                ElementsAre("D/velmd.conf:3: logger.file.name is not set: there is no file"));
    EXPECT_THAT(found_in("logger.file=yes\nlogger.file.name=" + directory_.path("a/log") + "\n"),
                ElementsAre("D/a/log: cannot be written: No such file or directory "
                            "(logger.file.name)"));
    EXPECT_THAT(found_in("logger.file=no\nlogger.file.name=/nowhere/log\n"), IsEmpty());
}

TEST_F(Writes, RelativePathsAreWarnedOfWhereTheyCountFromTheRoot)
{
    load("http.server.cert.path=cert.pem\nlogger.file.name=log\nvendor.id=V\n");
    check_findings findings;
    check_relative_paths(subject_, &findings);
    const std::string file = subject_.config_path;
    EXPECT_THAT(
        found(std::move(findings)),
        ElementsAre(file + ":3: warning: http.server.cert.path: a relative path counts from /",
                    file + ":4: warning: logger.file.name: a relative path counts from /"));
    EXPECT_EQ(check_path_of(subject_, "cert.pem"), "/cert.pem");
    load("process.daemonize=no\nhttp.server.cert.path=cert.pem\n");
    check_findings none;
    check_relative_paths(subject_, &none);
    EXPECT_THAT(found(std::move(none)), IsEmpty());
    EXPECT_EQ(check_path_of(subject_, "cert.pem"), "cert.pem");
}

TEST_F(Writes, ThePlaceOfASettingIsNvramWhereThatCounts)
{
    fake_nvram.values["ap_vendor"] = "V";
    EXPECT_EQ(check_place_of(subject_, "vendor.id").name, "nvram ap_vendor");
    fake_nvram.values["ap_vendor"] = std::string(50, 'v');
    EXPECT_EQ(check_place_of(subject_, "vendor.id").name, subject_.config_path);
    fake_nvram.values["zelkad_http_server_port"] = "1";
    EXPECT_EQ(check_place_of(subject_, "http.server.port").name, "nvram zelkad_http_server_port");
    EXPECT_EQ(check_place_of(subject_, "process.pidfile").line, 1U);
}

} // namespace
