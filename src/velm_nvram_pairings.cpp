#include "velm_nvram_pairings.h"

#include <nvram.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "handles/malloc.h"
#include "logger/fatal.h"
#include "pairings/slot.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_nvram_pairings";

constexpr char status_valid[] = "Valid";
constexpr char status_invalid[] = "Invalid";

/// The members in the order of the record, which is also that of the dump.
constexpr std::array<const char *, 9> members{"status",    "dev_id",     "dev_type",
                                              "name",      "push_token", "date_added",
                                              "dev_model", "os_version", "attestation_key"};

/// All but "status", which is written before them.
constexpr std::array<const char *, 8> written_from_record{
    "dev_id",    "dev_type",   "name",       "push_token",
    "dev_model", "os_version", "date_added", "attestation_key"};

struct module_state {
    const velm_config *config = nullptr;
};
module_state state;

int pairings_limit()
{
    return state.config == nullptr ? 0 : state.config->pairings_limit;
}

bool is_slot(int index)
{
    return index >= 0 && index < pairings_limit();
}

json_ptr make_pairing()
{
    json_ptr pairing{cJSON_CreateObject()};
    if (pairing == nullptr) {
        fatal_not_enough_memory(log_category, __FILE__, __LINE__,
                                "velm_nvram_pairings_create_empty_pairing", "pairing");
    }
    return pairing;
}

constexpr char update_field[] = "velm_nvram_pairings_update_pairing_field";

json_ptr make_text(const char *value)
{
    json_ptr text{cJSON_CreateString(value == nullptr ? "" : value)};
    if (text == nullptr) {
        fatal_not_enough_memory(log_category, __FILE__, __LINE__, update_field, "text");
    }
    return text;
}

/// The pairing has the text now.
void hand_over(json_ptr text, cJSON_bool stored)
{
    REQUIRE_CALL_BY(update_field, stored != 0, "cJSON_AddItemToObject(pairing, field, text)", 0);
    (void)text.release();
}

/// One of `members`, which the pairing does not have yet: it is not looked for, and its name is borrowed. A
/// slot is read six times in a round, and both together take longer than reading its settings.
void add_member(cJSON *pairing, const char *member, const char *value)
{
    json_ptr text = make_text(value);
    const cJSON_bool stored = cJSON_AddItemToObjectCS(pairing, member, text.get());
    hand_over(std::move(text), stored);
}

json_ptr read_slot(int index)
{
    json_ptr pairing = make_pairing();
    for (const char *member : members) {
        add_member(pairing.get(), member, pairing_slot_read(index, member).get());
    }
    return pairing;
}

std::optional<int> first_free_slot()
{
    for (int index = 0; index < pairings_limit(); ++index) {
        if (!velm_nvram_pairings_is_live(index)) {
            return index;
        }
    }
    return std::nullopt;
}

/// The slot that holds the device id; it need not be live.
std::optional<int> find_slot(const char *dev_id)
{
    for (int index = 0; index < pairings_limit(); ++index) {
        if (pairing_slot_equals(index, "dev_id", dev_id)) {
            return index;
        }
    }
    return std::nullopt;
}

bool slot_holds(int index, const cJSON *pairing)
{
    return pairing_slot_equals(index, "status", status_valid) &&
           std::all_of(
               written_from_record.begin(), written_from_record.end(), [&](const char *member) {
                   return pairing_slot_keeps(
                       index, member, velm_utils_get_field_value_from_json_object(pairing, member));
               });
}

void clear_slot(int index)
{
    velm_nvram_pairings_write_pairing_field_by_index(index, "status", status_invalid);
    for (const char *member : written_from_record) {
        velm_nvram_pairings_write_pairing_field_by_index(index, member, "");
    }
}

void append(cJSON *list, json_ptr item)
{
    const bool appended = cJSON_AddItemToArray(list, item.get()) != 0;
    REQUIRE_CALL(appended, "cJSON_AddItemToArray(list, item)", 0);
    (void)item.release();
}

json_ptr make_list()
{
    json_ptr list{cJSON_CreateArray()};
    REQUIRE_MEMORY(list, "list");
    return list;
}

using time_text = std::array<char, 21>;

time_text print_current_utc_time()
{
    time_text text{"2023-03-08T13:32:00Z"};
    const std::time_t now = std::time(nullptr);
    if (now == static_cast<std::time_t>(-1)) {
        FATAL("%s: cannot get time now", __func__);
    }
    std::tm broken_down{};
    const std::tm *ptm = gmtime_r(&now, &broken_down);
    REQUIRE_NOT_NULL(ptm, "ptm");
    if (std::strftime(text.data(), text.size(), "%FT%TZ", ptm) == 0) {
        FATAL("%s: cannot print time", __func__);
    }
    return text;
}

} // namespace

void velm_nvram_pairings_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    state.config = config;
    velm_nvram_pairings_print_pairings();
}

void velm_nvram_pairings_write_pairing_field_by_index(int index, const char *field,
                                                      const char *value)
{
    REQUIRE_NOT_NULL(field, "field");
    REQUIRE_NOT_NULL(value, "value");
    if (!is_slot(index)) {
        FATAL("%s: invalid pairing index", __func__);
    }
    const pairing_key key = pairing_slot_key(index, field);
    if (const int rc = nvram_set(key.data(), value); rc != 0) {
        LOG_ERROR("%s - nvram_set failed: %d, %s", __func__, rc, key.data());
    }
}

int velm_nvram_pairings_select_index_by_field(const char *dev_id)
{
    REQUIRE_NOT_NULL(dev_id, "dev_id");
    return find_slot(dev_id).value_or(-1);
}

int velm_nvram_pairings_is_valid_pairing(int index)
{
    if (!is_slot(index)) {
        FATAL("%s: invalid pairing index", __func__);
    }
    return pairing_slot_equals(index, "status", status_valid) ? 1 : 0;
}

/// A phone can only be found, pushed to and unpaired by its device id.
bool velm_nvram_pairings_is_live(int index)
{
    if (!is_slot(index) || !pairing_slot_equals(index, "status", status_valid)) {
        return false;
    }
    const malloc_text dev_id = pairing_slot_read(index, "dev_id");
    return dev_id != nullptr && *dev_id != '\0';
}

json_ptr velm_nvram_pairings_create_empty_pairing()
{
    json_ptr pairing = make_pairing();
    for (const char *member : members) {
        add_member(pairing.get(), member, "");
    }
    return pairing;
}

void velm_nvram_pairings_update_pairing_field(cJSON *pairing, const char *field, const char *value)
{
    REQUIRE_NOT_NULL(pairing, "pairing");
    REQUIRE_NOT_NULL(field, "field");
    json_ptr text = make_text(value);
    const bool present = cJSON_GetObjectItemCaseSensitive(pairing, field) != nullptr;
    const cJSON_bool stored =
        present ? cJSON_ReplaceItemInObjectCaseSensitive(pairing, field, text.get())
                : cJSON_AddItemToObject(pairing, field, text.get());
    hand_over(std::move(text), stored);
}

json_ptr velm_nvram_pairings_select_pairing_by_index(int index)
{
    return is_slot(index) ? read_slot(index) : nullptr;
}

json_ptr velm_nvram_pairings_select_live_pairing(int index)
{
    return velm_nvram_pairings_is_live(index) ? read_slot(index) : nullptr;
}

json_ptr velm_nvram_pairings_read_pairings(int only_valid)
{
    json_ptr list = make_list();
    for (int index = 0; index < pairings_limit(); ++index) {
        json_ptr pairing =
            only_valid != 0 ? velm_nvram_pairings_select_live_pairing(index) : read_slot(index);
        if (pairing != nullptr) {
            append(list.get(), std::move(pairing));
        }
    }
    return list;
}

json_ptr velm_nvram_pairings_select_pairing(const char *dev_id)
{
    return velm_nvram_pairings_select_pairing_by_index(
        velm_nvram_pairings_select_index_by_field(dev_id));
}

int velm_nvram_pairings_pairing_exists(const char *dev_id)
{
    return velm_nvram_pairings_select_index_by_field(dev_id) >= 0 ? 1 : 0;
}

void velm_nvram_pairings_write_pairing(const cJSON *pairing)
{
    REQUIRE_NOT_NULL(pairing, "pairing");
    const char *pairing_id = velm_utils_get_field_value_from_json_object(pairing, "dev_id");
    REQUIRE_NOT_NULL(pairing_id, "pairing_id");
    std::optional<int> slot = find_slot(pairing_id);
    if (!slot.has_value()) {
        slot = first_free_slot();
    }
    if (!slot.has_value()) {
        return;
    }
    const int index = *slot;
    velm_nvram_pairings_write_pairing_field_by_index(index, "status", status_valid);
    for (const char *member : written_from_record) {
        velm_nvram_pairings_write_pairing_field_by_index(
            index, member, velm_utils_get_field_value_from_json_object(pairing, member));
    }
    if (!slot_holds(index, pairing)) {
        LOG_ERROR("%s - the store has not kept slot %d of %s: it is free again", __func__, index,
                  pairing_id);
        clear_slot(index);
    }
}

bool velm_nvram_pairings_is_stored(const cJSON *pairing)
{
    REQUIRE_NOT_NULL(pairing, "pairing");
    const char *pairing_id = velm_utils_get_field_value_from_json_object(pairing, "dev_id");
    REQUIRE_NOT_NULL(pairing_id, "pairing_id");
    const std::optional<int> slot = find_slot(pairing_id);
    return slot.has_value() && slot_holds(*slot, pairing);
}

void velm_nvram_pairings_update_pairing(const cJSON *pairing)
{
    velm_nvram_pairings_write_pairing(pairing);
    velm_nvram_pairings_print_pairings();
}

void velm_nvram_pairings_insert_pairing(cJSON *pairing)
{
    velm_nvram_pairings_update_pairing_field(pairing, "date_added",
                                             print_current_utc_time().data());
    velm_nvram_pairings_write_pairing(pairing);
    velm_nvram_pairings_print_pairings();
}

void velm_nvram_pairings_delete_pairing(const char *dev_id)
{
    const int index = velm_nvram_pairings_select_index_by_field(dev_id);
    if (index < 0) {
        return;
    }
    clear_slot(index);
    velm_nvram_pairings_print_pairings();
}

int velm_nvram_pairings_count_pairings()
{
    int count = 0;
    for (int index = 0; index < pairings_limit(); ++index) {
        count += velm_nvram_pairings_is_live(index) ? 1 : 0;
    }
    return count;
}

int velm_nvram_pairings_limit_reached()
{
    return velm_nvram_pairings_count_pairings() >= pairings_limit() ? 1 : 0;
}

json_ptr velm_nvram_pairings_get_push_tokens()
{
    json_ptr tokens = make_list();
    for (int index = 0; index < pairings_limit(); ++index) {
        if (!velm_nvram_pairings_is_live(index)) {
            continue;
        }
        const malloc_text token = pairing_slot_read(index, "push_token");
        if (token != nullptr && *token != '\0') {
            append(tokens.get(), json_ptr{cJSON_CreateString(token.get())});
        }
    }
    return tokens;
}

void velm_nvram_pairings_save_pairings()
{
    velm_nvram_pairings_print_pairings();
    LOG_TRACE("%s - nvram_commit - start", __func__);
    if (const int rc = nvram_commit(); rc != 0) {
        LOG_ERROR("%s - nvram_commit failed: %d", __func__, rc);
    }
    LOG_TRACE("%s - nvram_commit - end", __func__);
}

void velm_nvram_pairings_print_pairings()
{
    if (!common_logger_writes(log_category, LOG_LEVEL_TRACE)) {
        return; // the dump reads every slot
    }
    LOG_TRACE("velm pairings [");
    for (int index = 0; index < pairings_limit(); ++index) {
        for (const char *member : members) {
            const malloc_text value = pairing_slot_read(index, member);
            LOG_TRACE("   zelkad_pairing_%d_%s=%s", index, member,
                      value == nullptr ? "" : value.get());
        }
    }
    LOG_TRACE("]");
}
