#include "velm_nvram_pairings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/fake_nvram.h"
#include "velm_utils.h"

namespace {

std::string field(const json_ptr &pairing, const char *name)
{
    return velm_utils_get_field_value_from_json_object(pairing.get(), name);
}

class Pairings : public testing::Test {
  protected:
    Pairings()
    {
        fake_nvram = {};
        fake_clock_set(1678282320); // 2023-03-08T13:32:00Z
        set_limit(3);
    }
    ~Pairings() override
    {
        fake_clock_reset();
    }

    void set_limit(std::uint16_t limit)
    {
        config.pairings_limit = limit;
        velm_nvram_pairings_init(&config);
    }

    static json_ptr phone(const char *dev_id, const char *name = "Phone",
                          const char *token = "token")
    {
        json_ptr pairing = velm_nvram_pairings_create_empty_pairing();
        velm_nvram_pairings_update_pairing_field(pairing.get(), "dev_id", dev_id);
        velm_nvram_pairings_update_pairing_field(pairing.get(), "dev_type", "iOS");
        velm_nvram_pairings_update_pairing_field(pairing.get(), "name", name);
        velm_nvram_pairings_update_pairing_field(pairing.get(), "push_token", token);
        return pairing;
    }

    static void insert(const char *dev_id, const char *name = "Phone", const char *token = "token")
    {
        velm_nvram_pairings_insert_pairing(phone(dev_id, name, token).get());
    }

    static std::vector<std::string> live_ids()
    {
        std::vector<std::string> ids;
        const json_ptr list = velm_nvram_pairings_read_pairings(1);
        for (const cJSON *item = list->child; item != nullptr; item = item->next) {
            ids.emplace_back(velm_utils_get_field_value_from_json_object(item, "dev_id"));
        }
        return ids;
    }

    velm_config config{};
};

TEST_F(Pairings, InsertWritesTheNineKeysOfTheLowestFreeSlot)
{
    json_ptr pairing = phone("id-1", "Anna's phone", "tok");
    velm_nvram_pairings_update_pairing_field(pairing.get(), "dev_model", "iPhone15,2");
    velm_nvram_pairings_update_pairing_field(pairing.get(), "os_version", "17.1");
    velm_nvram_pairings_update_pairing_field(pairing.get(), "attestation_key", "a2V5");
    velm_nvram_pairings_insert_pairing(pairing.get());

    const std::map<std::string, std::string> expected{
        {"zelkad_pairing_0_status", "Valid"},
        {"zelkad_pairing_0_dev_id", "id-1"},
        {"zelkad_pairing_0_dev_type", "iOS"},
        {"zelkad_pairing_0_name", "Anna's phone"},
        {"zelkad_pairing_0_push_token", "tok"},
        {"zelkad_pairing_0_date_added", "2023-03-08T13:32:00Z"},
        {"zelkad_pairing_0_dev_model", "iPhone15,2"},
        {"zelkad_pairing_0_os_version", "17.1"},
        {"zelkad_pairing_0_attestation_key", "a2V5"},
    };
    EXPECT_EQ(fake_nvram.values, expected);
    EXPECT_EQ(fake_nvram.commits, 0) << "only save makes a change durable";
}

TEST_F(Pairings, ARecordIsWrittenStatusFirst)
{
    insert("id-1");
    std::vector<std::string> expected;
    for (const char *member : {"status", "dev_id", "dev_type", "name", "push_token", "dev_model",
                               "os_version", "date_added", "attestation_key"}) {
        expected.push_back(std::string{"zelkad_pairing_0_"} + member);
    }
    EXPECT_EQ(fake_nvram.written, expected);
}

TEST_F(Pairings, SameDeviceIdTwiceReusesItsSlotAndReplacesAllFieldsDateAddedIncluded)
{
    insert("id-1", "Old");
    fake_clock_advance(60);
    insert("id-1", "New");
    EXPECT_EQ(velm_nvram_pairings_count_pairings(), 1);
    const json_ptr pairing = velm_nvram_pairings_select_pairing("id-1");
    EXPECT_EQ(field(pairing, "name"), "New");
    EXPECT_EQ(field(pairing, "date_added"), "2023-03-08T13:33:00Z");
}

TEST_F(Pairings, AfterDeletingSlotZeroOfTwoANewDeviceTakesItAndTheListIsInSlotOrder)
{
    insert("id-1");
    insert("id-2");
    velm_nvram_pairings_delete_pairing("id-1");
    EXPECT_EQ(live_ids(), std::vector<std::string>{"id-2"});
    insert("id-3");
    EXPECT_EQ(live_ids(), (std::vector<std::string>{"id-3", "id-2"}));
    EXPECT_EQ(velm_nvram_pairings_select_index_by_field("id-3"), 0);
}

TEST_F(Pairings, DeleteMarksTheSlotInvalidAndEmptiesItsOtherKeys)
{
    insert("id-1");
    velm_nvram_pairings_delete_pairing("id-1");
    EXPECT_EQ(fake_nvram.values.size(), 9U);
    for (const auto &[key, value] : fake_nvram.values) {
        EXPECT_EQ(value, key == "zelkad_pairing_0_status" ? "Invalid" : "") << key;
    }
}

TEST_F(Pairings, DeleteOfAnUnknownDeviceWritesNothing)
{
    insert("id-1");
    const int writes = fake_nvram.writes;
    velm_nvram_pairings_delete_pairing("id-2");
    EXPECT_EQ(fake_nvram.writes, writes);
}

TEST_F(Pairings, AtTheLimitANewDeviceIsNotStoredAndTheLimitIsReached)
{
    insert("id-1");
    insert("id-2");
    EXPECT_EQ(velm_nvram_pairings_limit_reached(), 0);
    insert("id-3");
    EXPECT_EQ(velm_nvram_pairings_limit_reached(), 1);
    insert("id-4");
    EXPECT_EQ(live_ids(), (std::vector<std::string>{"id-1", "id-2", "id-3"}));
    EXPECT_EQ(velm_nvram_pairings_select_pairing("id-4"), nullptr);
}

TEST_F(Pairings, ADeviceIdThatIsAPrefixOfAStoredOneDoesNotMatch)
{
    insert("id-12");
    EXPECT_EQ(velm_nvram_pairings_select_index_by_field("id-1"), -1);
    EXPECT_EQ(velm_nvram_pairings_select_index_by_field("id-123"), -1);
    EXPECT_EQ(velm_nvram_pairings_pairing_exists("id-1"), 0);
    EXPECT_EQ(velm_nvram_pairings_pairing_exists("id-12"), 1);
}

TEST_F(Pairings, AnEmptyDeviceIdMatchesTheFirstDeletedSlot)
{
    insert("id-1");
    insert("id-2");
    EXPECT_EQ(velm_nvram_pairings_select_index_by_field(""), -1);
    velm_nvram_pairings_delete_pairing("id-2");
    EXPECT_EQ(velm_nvram_pairings_select_index_by_field(""), 1);
}

TEST_F(Pairings, WithALimitOfZeroTheStoreHoldsNothing)
{
    insert("id-1");
    set_limit(0);
    EXPECT_EQ(velm_nvram_pairings_select_index_by_field("id-1"), -1);
    EXPECT_EQ(velm_nvram_pairings_select_pairing("id-1"), nullptr);
    EXPECT_EQ(velm_nvram_pairings_select_pairing_by_index(0), nullptr);
    EXPECT_EQ(cJSON_GetArraySize(velm_nvram_pairings_read_pairings(0).get()), 0);
    EXPECT_EQ(cJSON_GetArraySize(velm_nvram_pairings_get_push_tokens().get()), 0);
    EXPECT_EQ(velm_nvram_pairings_count_pairings(), 0);
    EXPECT_EQ(velm_nvram_pairings_limit_reached(), 1);
    const int writes = fake_nvram.writes;
    insert("id-2");
    EXPECT_EQ(fake_nvram.writes, writes);
}

TEST_F(Pairings, LoweringTheLimitHidesSlotsAndRaisingItShowsThemAgain)
{
    insert("id-1");
    insert("id-2");
    set_limit(1);
    EXPECT_EQ(live_ids(), std::vector<std::string>{"id-1"});
    set_limit(3);
    EXPECT_EQ(live_ids(), (std::vector<std::string>{"id-1", "id-2"}));
}

TEST_F(Pairings, PushTokensLeaveOutLivePairingsWithAnEmptyTokenAndDeadSlots)
{
    insert("id-1", "a", "t1");
    insert("id-2", "b", "");
    insert("id-3", "c", "t3");
    velm_nvram_pairings_delete_pairing("id-1");
    const json_ptr tokens = velm_nvram_pairings_get_push_tokens();
    ASSERT_EQ(cJSON_GetArraySize(tokens.get()), 1);
    EXPECT_STREQ(tokens->child->valuestring, "t3");
}

TEST_F(Pairings, ADeadSlotIsStillReadableByIndex)
{
    insert("id-1");
    velm_nvram_pairings_delete_pairing("id-1");
    const json_ptr pairing = velm_nvram_pairings_select_pairing_by_index(0);
    EXPECT_EQ(field(pairing, "status"), "Invalid");
    EXPECT_EQ(cJSON_GetArraySize(velm_nvram_pairings_read_pairings(0).get()), 3);
    EXPECT_EQ(velm_nvram_pairings_select_pairing_by_index(3), nullptr);
    EXPECT_EQ(velm_nvram_pairings_select_pairing_by_index(-1), nullptr);
}

TEST_F(Pairings, ALiveSlotIsValidAndHasADeviceId)
{
    insert("id-1", "a");
    const json_ptr live = velm_nvram_pairings_select_live_pairing(0);
    ASSERT_NE(live, nullptr);
    EXPECT_EQ(field(live, "dev_id"), "id-1");
    EXPECT_EQ(field(live, "name"), "a");
    EXPECT_TRUE(velm_nvram_pairings_is_live(0));
    fake_nvram.values["zelkad_pairing_0_dev_id"] = "";
    EXPECT_EQ(velm_nvram_pairings_select_live_pairing(0), nullptr);
    EXPECT_FALSE(velm_nvram_pairings_is_live(0));
    fake_nvram.values.erase("zelkad_pairing_0_dev_id");
    EXPECT_EQ(velm_nvram_pairings_select_live_pairing(0), nullptr);
    EXPECT_FALSE(velm_nvram_pairings_is_live(0));
    fake_nvram.values["zelkad_pairing_0_dev_id"] = "id-1";
    fake_nvram.values["zelkad_pairing_0_status"] = "valid";
    EXPECT_EQ(velm_nvram_pairings_select_live_pairing(0), nullptr);
    EXPECT_FALSE(velm_nvram_pairings_is_live(0));
}

TEST_F(Pairings, NoSlotOutsideTheLimitIsLive)
{
    for (const char *id : {"id-1", "id-2", "id-3"}) {
        insert(id);
    }
    EXPECT_NE(velm_nvram_pairings_select_live_pairing(2), nullptr);
    EXPECT_TRUE(velm_nvram_pairings_is_live(2));
    for (const int outside : {3, -1}) {
        EXPECT_EQ(velm_nvram_pairings_select_live_pairing(outside), nullptr);
        EXPECT_FALSE(velm_nvram_pairings_is_live(outside));
    }
}

TEST_F(Pairings, OnlyTheExactWordValidMakesASlotLive)
{
    for (const char *status : {"valid", "Valid ", "Vali", "Invalid", ""}) {
        fake_nvram.values["zelkad_pairing_0_status"] = status;
        EXPECT_EQ(velm_nvram_pairings_is_valid_pairing(0), 0) << status;
    }
    fake_nvram.values["zelkad_pairing_0_status"] = "Valid";
    EXPECT_EQ(velm_nvram_pairings_is_valid_pairing(0), 1);
}

TEST_F(Pairings, AnEmptyPairingHasTheNineMembersInOrder)
{
    const json_text text{cJSON_PrintUnformatted(velm_nvram_pairings_create_empty_pairing().get())};
    EXPECT_STREQ(text.get(), R"({"status":"","dev_id":"","dev_type":"","name":"","push_token":"",)"
                             R"("date_added":"","dev_model":"","os_version":"",)"
                             R"("attestation_key":""})");
}

TEST_F(Pairings, UpdatingAFieldAddsReplacesAndStoresNullAsEmpty)
{
    json_ptr pairing{cJSON_CreateObject()};
    velm_nvram_pairings_update_pairing_field(pairing.get(), "name", "a");
    velm_nvram_pairings_update_pairing_field(pairing.get(), "name", "b");
    EXPECT_EQ(field(pairing, "name"), "b");
    velm_nvram_pairings_update_pairing_field(pairing.get(), "name", nullptr);
    EXPECT_EQ(field(pairing, "name"), "");
    EXPECT_EQ(cJSON_GetArraySize(pairing.get()), 1);
}

TEST_F(Pairings, SavePrintsAndCommitsOnce)
{
    insert("id-1");
    captured_log log;
    velm_nvram_pairings_save_pairings();
    EXPECT_EQ(fake_nvram.commits, 1);
    const auto &lines = log.lines();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines.front(), "TRACE velm_nvram_pairings - velm pairings [");
    EXPECT_EQ(lines[lines.size() - 2],
              "TRACE velm_nvram_pairings - velm_nvram_pairings_save_pairings - nvram_commit - "
              "start");
    EXPECT_EQ(lines.back(),
              "TRACE velm_nvram_pairings - velm_nvram_pairings_save_pairings - nvram_commit - end");
}

TEST_F(Pairings, ThePrintShowsNineLinesForEverySlotLiveOrNot)
{
    insert("id-1", "Anna");
    captured_log log;
    velm_nvram_pairings_print_pairings();
    EXPECT_EQ(log.lines().size(), 2U + 9 * 3);
    EXPECT_TRUE(log.has("TRACE velm_nvram_pairings -    zelkad_pairing_0_status=Valid"));
    EXPECT_TRUE(log.has("TRACE velm_nvram_pairings -    zelkad_pairing_0_name=Anna"));
    EXPECT_TRUE(log.has("TRACE velm_nvram_pairings -    zelkad_pairing_2_attestation_key="));
    EXPECT_TRUE(log.has("TRACE velm_nvram_pairings - ]"));
}

TEST_F(Pairings, InitNamesItselfAndPrintsThem)
{
    captured_log log;
    velm_nvram_pairings_init(&config);
    ASSERT_EQ(log.lines().size(), 1U + 2 + 9 * 3);
    EXPECT_EQ(log.lines()[0], "TRACE velm_nvram_pairings - velm_nvram_pairings_init");
    EXPECT_EQ(log.lines()[1], "TRACE velm_nvram_pairings - velm pairings [");
}

/// One with a text in every member.
json_ptr whole_phone(const char *dev_id)
{
    json_ptr pairing = velm_nvram_pairings_create_empty_pairing();
    for (const char *member : {"dev_id", "dev_type", "name", "push_token", "dev_model",
                               "os_version", "attestation_key"}) {
        velm_nvram_pairings_update_pairing_field(pairing.get(), member, member);
    }
    velm_nvram_pairings_update_pairing_field(pairing.get(), "dev_id", dev_id);
    return pairing;
}

TEST_F(Pairings, WhateverWriteIsTheFirstThatIsLostThePairingIsNotStored)
{
    for (int kept = 0; kept <= 9; ++kept) {
        fake_nvram = {};
        fake_nvram.room = kept;
        const captured_log log;
        const json_ptr pairing = whole_phone("id-1");
        velm_nvram_pairings_insert_pairing(pairing.get());
        EXPECT_EQ(velm_nvram_pairings_is_stored(pairing.get()), kept == 9) << kept;
        EXPECT_EQ(log.count("ERROR velm_nvram_pairings - velm_nvram_pairings_write_pairing - "),
                  kept == 9 ? 0 : 1);
        EXPECT_EQ(velm_nvram_pairings_limit_reached(), 0);
    }
}

TEST_F(Pairings, AStoreThatKeepsNoEmptyValuesKeepsPairings)
{
    fake_nvram.keeps_empty_values = false;
    insert("id-1");
    EXPECT_EQ(live_ids(), std::vector<std::string>{"id-1"});
    EXPECT_TRUE(velm_nvram_pairings_is_stored(velm_nvram_pairings_select_pairing("id-1").get()));
}

TEST_F(Pairings, WhenThereIsRoomAgainForTheWordInvalidTheSlotIsEmptied)
{
    insert("id-1");
    insert("id-2");
    fake_nvram.lost_write = 9; // the last of the pairing; what takes it back is kept
    velm_nvram_pairings_insert_pairing(whole_phone("id-3").get());
    EXPECT_EQ(live_ids(), (std::vector<std::string>{"id-1", "id-2"}));
    EXPECT_EQ(fake_nvram.values["zelkad_pairing_2_status"], "Invalid");
    EXPECT_EQ(fake_nvram.values["zelkad_pairing_2_dev_id"], "");
    EXPECT_EQ(velm_nvram_pairings_limit_reached(), 0);
    insert("id-3");
    EXPECT_EQ(live_ids(), (std::vector<std::string>{"id-1", "id-2", "id-3"}));
}

TEST_F(Pairings, AValidSlotWithoutADeviceIdIsFree)
{
    insert("id-1");
    fake_nvram.values["zelkad_pairing_1_status"] = "Valid";
    fake_nvram.values["zelkad_pairing_1_push_token"] = "nobody's";
    fake_nvram.values["zelkad_pairing_2_status"] = "Valid";
    fake_nvram.values["zelkad_pairing_2_dev_id"] = "";
    EXPECT_EQ(velm_nvram_pairings_count_pairings(), 1);
    EXPECT_EQ(velm_nvram_pairings_limit_reached(), 0);
    EXPECT_EQ(live_ids(), std::vector<std::string>{"id-1"});
    EXPECT_EQ(cJSON_GetArraySize(velm_nvram_pairings_get_push_tokens().get()), 1);
    insert("id-2");
    EXPECT_EQ(velm_nvram_pairings_select_index_by_field("id-2"), 1);
    insert("id-3");
    EXPECT_EQ(live_ids(), (std::vector<std::string>{"id-1", "id-2", "id-3"}));
    EXPECT_EQ(velm_nvram_pairings_limit_reached(), 1);
}

TEST_F(Pairings, WhatIsWholeIsStoredAndAnotherIsNot)
{
    insert("id-1", "Anna");
    json_ptr pairing = velm_nvram_pairings_select_pairing("id-1");
    EXPECT_TRUE(velm_nvram_pairings_is_stored(pairing.get()));
    velm_nvram_pairings_update_pairing_field(pairing.get(), "name", "Berta");
    EXPECT_FALSE(velm_nvram_pairings_is_stored(pairing.get()));
    EXPECT_FALSE(velm_nvram_pairings_is_stored(phone("id-2").get()));
}

TEST_F(Pairings, ACommitThatFailsIsAnErrorLine)
{
    fake_nvram.commit_fails = true;
    const captured_log log;
    velm_nvram_pairings_save_pairings();
    EXPECT_TRUE(log.has("ERROR velm_nvram_pairings - velm_nvram_pairings_save_pairings - "
                        "nvram_commit failed: -1"));
}

TEST_F(Pairings, ASettingThatCannotBeSetIsAnErrorLine)
{
    fake_nvram.room = 0;
    const captured_log log;
    velm_nvram_pairings_write_pairing_field_by_index(0, "name", "Anna");
    EXPECT_TRUE(
        log.has("ERROR velm_nvram_pairings - velm_nvram_pairings_write_pairing_field_by_index - "
                "nvram_set failed: -1, zelkad_pairing_0_name"));
}

using PairingsDeath = Pairings;

TEST_F(PairingsDeath, IndexOutsideTheLimitIsFatalWhereOneIsRequired)
{
    const captured_log log;
    EXPECT_DEATH((void)velm_nvram_pairings_is_valid_pairing(3),
                 "velm_nvram_pairings_is_valid_pairing: invalid pairing index");
    EXPECT_DEATH((void)velm_nvram_pairings_is_valid_pairing(-1), "invalid pairing index");
    EXPECT_DEATH(velm_nvram_pairings_write_pairing_field_by_index(3, "name", "x"),
                 "velm_nvram_pairings_write_pairing_field_by_index: invalid pairing index");
}

TEST_F(PairingsDeath, NullArgumentsAreFatal)
{
    const captured_log log;
    EXPECT_DEATH(velm_nvram_pairings_write_pairing_field_by_index(0, "name", nullptr),
                 "value is null: null reference");
    EXPECT_DEATH((void)velm_nvram_pairings_select_index_by_field(nullptr), "null reference");
    EXPECT_DEATH((void)velm_nvram_pairings_select_pairing(nullptr), "null reference");
    EXPECT_DEATH(velm_nvram_pairings_update_pairing_field(nullptr, "name", ""), "null reference");
    EXPECT_DEATH(velm_nvram_pairings_write_pairing(json_ptr{cJSON_CreateObject()}.get()),
                 "pairing_id is null: null reference");
}

TEST_F(PairingsDeath, AClockThatCannotBeReadIsFatal)
{
    const captured_log log;
    fake_clock_break();
    EXPECT_DEATH(insert("id-1"), "print_current_utc_time: cannot get time now");
}

} // namespace
