#include "http_server/held.h"

#include <gtest/gtest.h>

#include <string>

#include "handles/libevent.h"

namespace {

std::string content(evbuffer *buffer)
{
    std::string text(evbuffer_get_length(buffer), ' ');
    evbuffer_copyout(buffer, text.data(), text.size());
    return text;
}

TEST(HttpHeld, WipingATextKeepsItsLengthAndNoneOfItsBytes)
{
    std::string text = "a password";
    http_held_wipe(&text);
    EXPECT_EQ(text, std::string(10, '\0'));
}

TEST(HttpHeld, WipingABufferKeepsItsLengthAndNoneOfItsBytes)
{
    const evbuffer_handle buffer{evbuffer_new()};
    evbuffer_add(buffer.get(), "a password", 10);
    http_held_wipe(buffer.get());
    EXPECT_EQ(content(buffer.get()), std::string(10, '\0'));
    evbuffer_drain(buffer.get(), 10);
    http_held_wipe(buffer.get()); // an empty one has nothing to wipe
}

TEST(HttpHeld, TakesOverAllThatABufferHas)
{
    const evbuffer_handle buffer{evbuffer_new()};
    std::string all;
    for (int i = 0; i < 3; ++i) { // in pieces of their own
        const std::string piece(5000, static_cast<char>('a' + i));
        const evbuffer_handle one{evbuffer_new()};
        evbuffer_add(one.get(), piece.data(), piece.size());
        evbuffer_add_buffer(buffer.get(), one.get());
        all += piece;
    }
    std::string text = "before ";
    http_held_take_over(&text, buffer.get());
    EXPECT_EQ(text, "before " + all);
    EXPECT_EQ(evbuffer_get_length(buffer.get()), 0U);
    http_held_take_over(&text, buffer.get());
    EXPECT_EQ(text, "before " + all);
}

TEST(HttpHeld, WhatIsTakenOverIsOverwrittenWhereItLay)
{
    std::string lent = "a password";
    const evbuffer_handle buffer{evbuffer_new()};
    evbuffer_add_reference(buffer.get(), lent.data(), lent.size(), nullptr, nullptr);
    std::string text;
    http_held_take_over(&text, buffer.get());
    EXPECT_EQ(text, "a password");
    EXPECT_EQ(lent, std::string(10, '\0'));
}

TEST(HttpHeld, TakingOffTheFrontLeavesTheRestAndNothingBehindIt)
{
    std::string text = "headbody";
    http_held_take_off(&text, 4);
    EXPECT_EQ(text, "body");
    EXPECT_EQ(std::string(text.data() + 5, 3), std::string(3, '\0'));
    http_held_take_off(&text, 0);
    EXPECT_EQ(text, "body");
    http_held_take_off(&text, 4);
    EXPECT_EQ(text, "");
}

TEST(HttpHeld, ATextThatHasShrunkGivesItsRoomBack)
{
    std::string text(20000, 'x');
    http_held_take_off(&text, 19990);
    EXPECT_EQ(text, std::string(10, 'x'));
    EXPECT_LT(text.capacity(), 4096U);
    std::string all(1000, 'x');
    http_held_take_off(&all, 1000);
    EXPECT_LT(all.capacity(), 512U);
}

TEST(HttpHeld, RoomGrowsByLittle)
{
    std::string text(10000, 'x');
    http_held_make_room(&text, 1);
    EXPECT_LE(text.capacity(), 12288U);
    EXPECT_EQ(text, std::string(10000, 'x'));
}

TEST(HttpHeld, MovingBehindLeavesTheOtherWithoutRoom)
{
    std::string text = "head";
    std::string other(1000, 'b');
    http_held_move_behind(&text, &other);
    EXPECT_EQ(text, "head" + std::string(1000, 'b'));
    EXPECT_EQ(other, "");
    EXPECT_LT(other.capacity(), 512U);
}

} // namespace
