#include "check/nearest.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

constexpr std::string_view names[] = {"http.server.port", "http.server.key.path",
                                      "ssdp.server.port", "vendor.id", "velm_ipc"};

TEST(Nearest, IsTheNameWithTheFewestSlips)
{
    for (const char *slip : {"http.server.prot", "htp.server.port", "http.server.portt",
                             "http.serverport", "HTTP.Server.Port", "http_server_port"}) {
        EXPECT_EQ(check_nearest(slip, names), "http.server.port") << slip;
    }
    EXPECT_EQ(check_nearest("vendorid", names), "vendor.id");
    EXPECT_EQ(check_nearest("vendor.di", names), "vendor.id");
}

TEST(Nearest, IsNoneForWhatIsLikeNone)
{
    for (const char *other : {"", "x", "id", "colour", "server.http.port", "velm"}) {
        EXPECT_EQ(check_nearest(other, names), "") << other;
    }
    EXPECT_EQ(check_nearest(std::string(65, 'v'), names), "");
    EXPECT_EQ(check_nearest("vendor.id", {}), "");
}

TEST(Suggestion, AsksOnlyWhenANameIsNear)
{
    EXPECT_EQ(check_suggestion("vendor.ib", names), ": did you mean \"vendor.id\"?");
    EXPECT_EQ(check_suggestion("colour", names), "");
}

} // namespace
