#include "metrics/metrics.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "request/paths.h"
#include "request/status.h"

namespace {

std::size_t index_of_route(std::string_view route)
{
    return static_cast<std::size_t>(std::find(metrics_routes.begin(), metrics_routes.end(), route) -
                                    metrics_routes.begin());
}

std::size_t index_of_status(int status)
{
    return static_cast<std::size_t>(
        std::find(metrics_statuses.begin(), metrics_statuses.end(), status) -
        metrics_statuses.begin());
}

std::uint64_t replies(std::string_view route, int status)
{
    return metrics_replies(index_of_route(route), index_of_status(status));
}

TEST(Metrics, CountEachOnItsOwn)
{
    const std::uint64_t reloads = metrics_get(metric::reloads);
    const std::uint64_t moves = metrics_get(metric::lan_moves);
    metrics_count(metric::reloads);
    metrics_count(metric::reloads);
    EXPECT_EQ(metrics_get(metric::reloads), reloads + 2);
    EXPECT_EQ(metrics_get(metric::lan_moves), moves);
}

TEST(Metrics, KeepTheMost)
{
    metrics_keep_most(metric::clients_most, 3);
    metrics_keep_most(metric::clients_most, 2);
    EXPECT_EQ(metrics_get(metric::clients_most), 3U);
    metrics_keep_most(metric::clients_most, 4);
    EXPECT_EQ(metrics_get(metric::clients_most), 4U);
}

TEST(Metrics, RepliesAreCountedByRouteAndStatus)
{
    metrics_count_reply("/pair", 200);
    metrics_count_reply("/pair", 200);
    metrics_count_reply("/pairings", 401);
    EXPECT_EQ(replies("/pair", 200), 2U);
    EXPECT_EQ(replies("/pair", 401), 0U);
    EXPECT_EQ(replies("/pairings", 401), 1U);
    EXPECT_EQ(replies("/pairings", 200), 0U);
}

TEST(Metrics, EachPathAndEachStatusOfTheServerIsCountedAsItself)
{
    for (const request_path_row &row : request_paths) {
        for (const int status : http_statuses) {
            const std::uint64_t before = replies(row.path, status);
            metrics_count_reply(row.path, status);
            EXPECT_EQ(replies(row.path, status), before + 1) << row.path << ' ' << status;
        }
    }
    EXPECT_EQ(replies("other", 0), 0U);
    EXPECT_EQ(http_statuses.front(), http_status_ok);
    EXPECT_EQ(http_statuses.back(), http_status_unavailable);
}

TEST(Metrics, WhatNobodyKnowsIsCountedAsOther)
{
    metrics_count_reply("/favicon.ico", 404);
    metrics_count_reply("other", 404); // no path of ours is called so
    metrics_count_reply("", 431);
    metrics_count_reply("/info", 299);
    EXPECT_EQ(replies("other", 404), 2U);
    EXPECT_EQ(replies("none", 431), 1U);
    EXPECT_EQ(replies("/info", 0), 1U);
}

TEST(Metrics, PushesAreCountedByStatusAndTheSixteenthAndLaterTogether)
{
    for (int status = 600; status < 620; ++status) {
        metrics_count_push(status);
    }
    metrics_count_push(603);
    const auto &pushes = metrics_pushes();
    EXPECT_EQ(pushes[3].status, 603);
    EXPECT_EQ(pushes[3].pushes, 2U);
    EXPECT_EQ(pushes[14].status, 614);
    EXPECT_EQ(pushes[15].status, -1);
    EXPECT_EQ(pushes[15].pushes, 5U);
}

} // namespace
