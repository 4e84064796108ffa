#pragma once

#include "handles/cjson.h"
#include "velm_config.h"

/// The paired phones, kept in nvram, one group of keys "zelkad_pairing_<slot>_<member>" a slot.
/// In memory a pairing is an object of nine strings: "status" ("Valid" or "Invalid"), "dev_id",
/// "dev_type", "name", "push_token", "date_added", "dev_model", "os_version", "attestation_key".
/// A slot is live when its "status" is "Valid" and it has a device id. Slots run from 0 to the pairings limit
/// minus 1. Nothing is cached. Writes become durable with save. Returned objects are the caller's.
/// Null arguments are fatal.

/// Remembers the configuration (borrowed) and prints all pairings. Runs again on reload.
void velm_nvram_pairings_init(const velm_config *config);

/// An index outside the limit or a null value is fatal.
void velm_nvram_pairings_write_pairing_field_by_index(int index, const char *field,
                                                      const char *value);

/// The first slot, live or not, that bears the device id; -1 without one.
[[nodiscard]] int velm_nvram_pairings_select_index_by_field(const char *dev_id);

/// 1 when the slot's "status" is "Valid", also without a device id. An index outside the limit is fatal.
/// Part of the interface; only tests call it.
[[nodiscard]] int velm_nvram_pairings_is_valid_pairing(int index);

/// Whether a phone is paired there: "Valid" and with a device id. A slot that is not live is free. False
/// for an index outside the limit.
[[nodiscard]] bool velm_nvram_pairings_is_live(int index);

/// All nine members, empty.
[[nodiscard]] json_ptr velm_nvram_pairings_create_empty_pairing();

/// Sets a member of the record in memory; a null value is stored as the empty string.
void velm_nvram_pairings_update_pairing_field(cJSON *pairing, const char *field, const char *value);

/// The slot's record, live or not; null when the index is outside the limit.
[[nodiscard]] json_ptr velm_nvram_pairings_select_pairing_by_index(int index);

/// The same of a live slot: the phone that is paired there. Null for a slot that is not live.
[[nodiscard]] json_ptr velm_nvram_pairings_select_live_pairing(int index);

/// The records of all slots, or of the live ones, in slot order. Part of the interface; only tests call it.
[[nodiscard]] json_ptr velm_nvram_pairings_read_pairings(int only_valid);

/// The record of the first slot with this device id, or null.
[[nodiscard]] json_ptr velm_nvram_pairings_select_pairing(const char *dev_id);

/// 1 when a slot, live or not, bears the device id; else 0.
[[nodiscard]] int velm_nvram_pairings_pairing_exists(const char *dev_id);

/// Stores a record in the slot of its device id, else in the lowest slot that is not live; a full
/// store keeps nothing, so look at the limit first. Nvram tells of no errors, so the slot is read back:
/// one that does not hold the whole record is made "Invalid" and emptied, with an ERROR line.
void velm_nvram_pairings_write_pairing(const cJSON *pairing);

/// True when the slot of the record's device id is live and holds all of the record.
[[nodiscard]] bool velm_nvram_pairings_is_stored(const cJSON *pairing);

/// Stores a record of a phone that is paired already, and prints.
void velm_nvram_pairings_update_pairing(const cJSON *pairing);

/// Stamps "date_added" into the record, stores it and prints.
void velm_nvram_pairings_insert_pairing(cJSON *pairing);

/// Marks the slot "Invalid" and empties its other members; nothing when no slot has the id.
void velm_nvram_pairings_delete_pairing(const char *dev_id);

/// The number of live slots.
[[nodiscard]] int velm_nvram_pairings_count_pairings();

/// 1 when at least as many slots are live as the limit says.
[[nodiscard]] int velm_nvram_pairings_limit_reached();

/// The push tokens of the live slots, empty ones left out, in slot order. Part of the interface; only tests call it.
[[nodiscard]] json_ptr velm_nvram_pairings_get_push_tokens();

/// Prints, then commits nvram; an ERROR line when that fails.
void velm_nvram_pairings_save_pairings();

/// All slots at TRACE.
void velm_nvram_pairings_print_pairings();
