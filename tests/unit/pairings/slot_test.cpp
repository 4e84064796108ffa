#include "pairings/slot.h"

#include <gtest/gtest.h>

#include <string>

#include "fakes/fake_nvram.h"

namespace {

TEST(PairingSlot, EachMemberHasASettingOfItsOwn)
{
    EXPECT_STREQ(pairing_slot_key(0, "status").data(), "zelkad_pairing_0_status");
    EXPECT_STREQ(pairing_slot_key(65535, "attestation_key").data(),
                 "zelkad_pairing_65535_attestation_key");
}

TEST(PairingSlot, ANameThatDoesNotFitIsCut)
{
    const std::string member(100, 'm');
    EXPECT_EQ(std::string{pairing_slot_key(7, member).data()},
              "zelkad_pairing_7_" + std::string(46, 'm'));
}

class PairingSlotInNvram : public testing::Test {
  protected:
    PairingSlotInNvram()
    {
        fake_nvram = {};
        fake_nvram.values["zelkad_pairing_1_name"] = "Anna";
        fake_nvram.values["zelkad_pairing_1_push_token"] = "";
    }
};

TEST_F(PairingSlotInNvram, AMemberIsReadFromItsSlotOnly)
{
    EXPECT_STREQ(pairing_slot_read(1, "name").get(), "Anna");
    EXPECT_EQ(pairing_slot_read(0, "name"), nullptr);
    EXPECT_EQ(pairing_slot_read(1, "status"), nullptr);
}

TEST_F(PairingSlotInNvram, WhatIsAbsentEqualsNothing)
{
    EXPECT_TRUE(pairing_slot_equals(1, "name", "Anna"));
    EXPECT_FALSE(pairing_slot_equals(1, "name", "Ann"));
    EXPECT_FALSE(pairing_slot_equals(1, "name", "Anna "));
    EXPECT_FALSE(pairing_slot_equals(1, "status", ""));
}

TEST_F(PairingSlotInNvram, AStoreMayKeepNothingForAnEmptyValue)
{
    EXPECT_TRUE(pairing_slot_keeps(1, "push_token", ""));
    EXPECT_TRUE(pairing_slot_keeps(1, "status", ""));
    EXPECT_TRUE(pairing_slot_keeps(1, "name", "Anna"));
    EXPECT_FALSE(pairing_slot_keeps(1, "name", ""));
    EXPECT_FALSE(pairing_slot_keeps(1, "status", nullptr));
}

} // namespace
