#include "malloc/tls_rooms.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

using byte = unsigned char;

bool is_zero(const void *room)
{
    const auto *const bytes = static_cast<const byte *>(room);
    return std::all_of(bytes, bytes + tls_room_most, [](byte one) { return one == 0; });
}

std::size_t resident_pages(void *room)
{
    std::array<byte, tls_room_most / 4096> pages{};
    EXPECT_EQ(mincore(room, tls_room_most, pages.data()), 0);
    return static_cast<std::size_t>(
        std::count_if(pages.begin(), pages.end(), [](byte page) { return (page & 1) != 0; }));
}

/// The first test of the program: later ones have taken some.
TEST(TlsRooms, WhileNoneIsTakenNoMemoryIsOne)
{
    const std::vector<byte> heap(tls_room_least);
    EXPECT_FALSE(tls_room_is_one(heap.data()));
    EXPECT_FALSE(tls_room_is_one(&heap));
    EXPECT_FALSE(tls_room_is_one(nullptr));
}

TEST(TlsRooms, AreForTheLargeBuffersOnly)
{
    EXPECT_EQ(tls_room_take(tls_room_least - 1), nullptr);
    EXPECT_EQ(tls_room_take(tls_room_most + 1), nullptr);
    for (const std::size_t size : {tls_room_least, tls_room_most}) {
        void *const room = tls_room_take(size);
        ASSERT_NE(room, nullptr);
        EXPECT_TRUE(tls_room_is_one(room));
        tls_room_give_back(room);
    }
    const std::vector<byte> heap(tls_room_least);
    EXPECT_FALSE(tls_room_is_one(heap.data()));
    EXPECT_FALSE(tls_room_is_one(nullptr));
}

TEST(TlsRooms, OfRecordsAreZeroAgainForTheNext)
{
    std::vector<void *> rooms;
    for (std::size_t i = 0; i < tls_rooms_at_hand_for_records + 1; ++i) {
        rooms.push_back(tls_room_take(tls_room_record_most));
        std::memset(rooms.back(), 'p', tls_room_most);
    }
    for (void *const room : rooms) {
        tls_room_give_back(room);
        EXPECT_TRUE(is_zero(room));
    }
}

TEST(TlsRooms, OfRecordsAreOverwrittenAndStayResidentOnlyAsFarAsBytesReachedThem)
{
    tls_rooms_trim(); // what the other tests reached
    auto *const room = static_cast<byte *>(tls_room_take(tls_room_record_most));
    ASSERT_NE(room, nullptr);
    tls_room_reached(room + 3, 0);
    std::memset(room + 3, 'p', 5000);
    tls_room_reached(room + 3, 5000);
    tls_room_reached(room + 8, 5); // a later word about less takes nothing back
    tls_room_give_back(room);
    EXPECT_EQ(resident_pages(room), 2U);
    EXPECT_TRUE(is_zero(room));
    ASSERT_EQ(tls_room_take(tls_room_record_most), room);
    std::memset(room, 'p', tls_room_most); // of which nobody says anything
    tls_room_give_back(room);
    EXPECT_TRUE(is_zero(room));
}

TEST(TlsRooms, OfRecordsAndOfMessagesAreApart)
{
    void *const record = tls_room_take(tls_room_record_most);
    void *const messages = tls_room_take(tls_room_record_most + 1);
    tls_room_give_back(record);
    tls_room_give_back(messages);
    EXPECT_EQ(tls_room_take(tls_room_record_most + 1), messages);
    EXPECT_EQ(tls_room_take(tls_room_record_most), record);
    tls_room_give_back(record);
    tls_room_give_back(messages);
}

TEST(TlsRooms, HearOfMemoryThatIsNoRoom)
{
    const std::vector<byte> heap(tls_room_least);
    tls_room_reached(heap.data(), heap.size());
    EXPECT_FALSE(tls_room_is_one(heap.data()));
}

TEST(TlsRooms, AreResidentAsFarAsBytesReachedThemAndOnlyTheFirstStaySo)
{
    std::vector<void *> rooms;
    for (std::size_t i = 0; i < 2 * tls_rooms_at_hand_for_messages; ++i) {
        rooms.push_back(tls_room_take(tls_room_most));
    }
    auto *const last = static_cast<byte *>(rooms.back());
    EXPECT_EQ(resident_pages(last), 0U);
    *last = 1;
    EXPECT_EQ(resident_pages(last), 1U);
    std::memset(rooms.front(), 1, tls_room_most);
    for (void *const room : rooms) {
        tls_room_give_back(room);
    }
    EXPECT_EQ(resident_pages(last), 0U);
    EXPECT_EQ(resident_pages(rooms.front()), tls_room_most / 4096);
    void *const taken = tls_room_take(tls_room_most);
    std::memset(taken, 1, tls_room_most);
    tls_rooms_trim();
    EXPECT_EQ(resident_pages(taken), tls_room_most / 4096);
    EXPECT_EQ(resident_pages(rooms[1]), 0U);
    tls_room_give_back(taken);
}

TEST(TlsRooms, AreGivenBackOnBothSidesOfOneThatIsTaken)
{
    std::vector<void *> rooms;
    for (std::size_t i = 0; i < tls_rooms_at_hand_for_records; ++i) {
        rooms.push_back(tls_room_take(tls_room_record_most));
        std::memset(rooms.back(), 'p', tls_room_most);
    }
    for (std::size_t i = 0; i < rooms.size(); ++i) {
        if (i != 1) {
            tls_room_give_back(rooms[i]);
            std::memset(rooms[i], 0, tls_room_most); // resident again, whatever came before
        }
    }
    tls_rooms_trim();
    for (std::size_t i = 0; i < rooms.size(); ++i) {
        EXPECT_EQ(resident_pages(rooms[i]), i == 1 ? tls_room_most / 4096 : 0U) << i;
    }
    tls_room_give_back(rooms[1]);
    tls_rooms_trim();
    EXPECT_EQ(resident_pages(rooms[1]), 0U);
}

TEST(TlsRooms, WhenAllAreTakenTheAllocatorIsToBeAsked)
{
    std::vector<void *> rooms;
    for (std::size_t i = 0; i < tls_rooms; ++i) {
        rooms.push_back(tls_room_take(tls_room_most));
        ASSERT_NE(rooms.back(), nullptr);
    }
    std::sort(rooms.begin(), rooms.end());
    EXPECT_EQ(std::unique(rooms.begin(), rooms.end()), rooms.end());
    EXPECT_EQ(tls_room_take(tls_room_most), nullptr);
    tls_room_give_back(rooms[7]);
    EXPECT_EQ(tls_room_take(tls_room_most), rooms[7]);
    for (void *const room : rooms) {
        tls_room_give_back(room);
    }
}

} // namespace
