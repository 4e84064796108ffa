#include "velm_location_policy_ipc.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <utility>

#include "async/common_async.h"
#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/ipc_peer.h"
#include "fakes/temporary_directory.h"
#include "handles/libevent.h"
#include "ipc/report_queue.h"
#include "story/story.h"
#include "story/view.h"
#include "velm_cloud_messaging.h"
#include "velm_nvram_pairings.h"

namespace {

// The pairings and the push are records of what was asked for.
struct stand_ins {
    int pairings = 1;
    std::string os_version = "17.4.1";
    std::string dev_model = "iPhone15,2";
    std::vector<std::pair<std::uint32_t, std::uint32_t>> pushes;
};
stand_ins fake;

} // namespace

int velm_nvram_pairings_count_pairings()
{
    return fake.pairings;
}

json_ptr velm_nvram_pairings_select_pairing(const char *dev_id)
{
    if (std::strcmp(dev_id, "phone-1") != 0) {
        return nullptr;
    }
    json_ptr pairing{cJSON_CreateObject()};
    cJSON_AddStringToObject(pairing.get(), "dev_id", dev_id);
    cJSON_AddStringToObject(pairing.get(), "os_version", fake.os_version.c_str());
    cJSON_AddStringToObject(pairing.get(), "dev_model", fake.dev_model.c_str());
    return pairing;
}

void velm_cloud_messaging_push_to_all(std::uint32_t timeout, std::uint32_t type)
{
    fake.pushes.emplace_back(timeout, type);
}

namespace {

constexpr std::time_t now = 1700000000;
constexpr char good_auth[] = R"({"deviceId": "phone-1", "bssid": "00:1a:2B:3c:4d:ff"})";
constexpr char good_location[] =
    R"({"latitude": 52.2296756, "longitude": -21.0122287, "accuracy": 4.5, "altitude": 113.25,
        "verticalAccuracy": 3.5, "rssi": -54.9, "timestamp": "1699999990"})";

class LocationPolicy : public testing::Test {
  protected:
    LocationPolicy()
    {
        fake = {};
        fake_clock_set(now);
        common_async_set_event_base(base);
        common_async_init();
        velm_location_policy_ipc_set_event_base(base);
        use_socket(socket_path);
        velm_location_policy_ipc_init(&config);
        location_policy_ipc_start();
    }
    ~LocationPolicy() override
    {
        location_policy_ipc_stop();
        fake_clock_reset();
    }

    void use_socket(const std::string &path)
    {
        const std::size_t size =
            path.copy(config.location_policy_ipc_sock, sizeof config.location_policy_ipc_sock - 1);
        config.location_policy_ipc_sock[size] = '\0';
    }

    unique_fd connect()
    {
        unique_fd client = ipc_connect(socket_path);
        EXPECT_TRUE(client);
        ipc_turn(base);
        return client;
    }

    std::optional<ipc_bytes> next_packet(const unique_fd &client)
    {
        std::optional<ipc_bytes> packet;
        ipc_turn_until(base, [&] { return (packet = ipc_receive(client)).has_value(); });
        return packet;
    }

    /// Hands a location on as the route does: its own copies die before the loop turns.
    static void deliver(const char *location = good_location, const char *auth = good_auth,
                        const char *ip = "192.168.1.23")
    {
        const std::string ip_text = ip;
        const json_ptr auth_json{cJSON_Parse(auth)};
        const json_ptr location_json{cJSON_Parse(location)};
        ASSERT_NE(auth_json, nullptr);
        ASSERT_NE(location_json, nullptr);
        velm_location_policy_ipc_send(ip_text.c_str(), auth_json.get(), location_json.get());
    }

    /// Delivers locations that are numbered by their latitude until one waits behind a packet that a
    /// client does not read; how many there were.
    static int deliver_until_one_waits()
    {
        int count = 0;
        do {
            deliver_number(count++);
            ipc_turn(base, 2);
        } while (location_queue_size() == 0 && count < 5000);
        return count;
    }

    static void deliver_number(int number)
    {
        deliver((R"({"latitude": )" + std::to_string(number / 1000.0) + "}").c_str());
    }

    velm_location_report report_to(const unique_fd &client)
    {
        velm_location_report report{};
        const auto packet = next_packet(client);
        EXPECT_TRUE(packet.has_value());
        const ipc_bytes payload = ipc_payload(packet.value_or(ipc_bytes{}));
        EXPECT_EQ(payload.size(), sizeof report);
        std::memcpy(&report, payload.data(), std::min(payload.size(), sizeof report));
        return report;
    }

    // Outlives the module's events, as in the daemon.
    static inline event_base *const base = event_base_new();
    const temporary_directory directory;
    const std::string socket_path = directory.path() + "/socket";
    velm_config config{};
};

TEST_F(LocationPolicy, WithoutAPairingTheClientGetsStatusThreeAtOnce)
{
    fake.pairings = 0;
    const captured_log log;
    const unique_fd client = connect();
    ipc_send(client, ipc_request(31));
    const auto packet = next_packet(client);
    ASSERT_TRUE(packet.has_value());
    const velm_frame_header header = ipc_header(*packet);
    EXPECT_EQ(header.type, 4096);
    EXPECT_EQ(header.id, 31U);
    EXPECT_EQ(header.status, 3U);
    ipc_bytes expected(224);
    const std::uint32_t time = now;
    std::memcpy(expected.data() + 136, &time, sizeof time);
    EXPECT_EQ(ipc_payload(*packet), expected);
    ipc_turn(base);
    EXPECT_FALSE(ipc_receive(client).has_value()) << "one answer, no busy";
    EXPECT_TRUE(fake.pushes.empty());
    EXPECT_TRUE(log.has("TRACE velm_location_policy_ipc - location_server_cmd_handler - "
                        "no paired devices"));
}

TEST_F(LocationPolicy, WithPairingsTheClientGetsNoAnswerButThePhonesArePushedTo)
{
    const captured_log log;
    const unique_fd client = connect();
    ipc_send(client, ipc_request(31, 515));
    EXPECT_TRUE(ipc_turn_until(base, [] { return !fake.pushes.empty(); }));
    ipc_turn(base);
    EXPECT_EQ(fake.pushes, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{{515, 0}}));
    EXPECT_FALSE(ipc_receive(client).has_value());
    const std::string head = "TRACE velm_location_policy_ipc - location_server_cmd_handler - ";
    EXPECT_TRUE(log.has(head + "id: 1 type: 4096 len: 140"));
    EXPECT_TRUE(log.has(head + "timeout: 515"));
    EXPECT_TRUE(log.has(head + "push to paired devices"));
    deliver();
    const auto packet = next_packet(client);
    ASSERT_TRUE(packet.has_value());
    EXPECT_EQ(ipc_header(*packet).type, 40960) << "only a later report";
}

TEST_F(LocationPolicy, AnAnswerForAClientThatLeftIsLoggedAsFailed)
{
    fake.pairings = 0;
    const captured_log log;
    unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    client.reset();
    ipc_turn(base);
    EXPECT_TRUE(log.has("ERROR velm_location_policy_ipc - location_server_cmd_handler - failed"));
}

TEST_F(LocationPolicy, AClientThatLeavesAfterItsRequestWasQueuedLeavesNothingBehind)
{
    unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    client.reset();
    EXPECT_TRUE(ipc_turn_until(base, [] { return !fake.pushes.empty(); }));
    const unique_fd other = connect();
    deliver();
    EXPECT_EQ(report_to(other).valid, 1U);
}

TEST_F(LocationPolicy, APushThatWaitsOutlivesAStopOfTheServer)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    const captured_log log;
    while (!log.contains("push to paired devices")) {
        event_base_loop(base, EVLOOP_ONCE);
    }
    location_policy_ipc_stop();
    EXPECT_TRUE(ipc_turn_until(base, [] { return !fake.pushes.empty(); }));
}

TEST_F(LocationPolicy, PushesThatWaitForTheLoopAreBoundedOverAllConnections)
{
    std::vector<unique_fd> clients;
    std::uint32_t busy = 0;
    const captured_log log;
    for (int i = 0; i < 6; ++i) {
        clients.push_back(connect());
        ipc_bytes packet;
        for (std::uint32_t id = 1; id <= 64; ++id) {
            const ipc_bytes request = ipc_request(id);
            packet.insert(packet.end(), request.begin(), request.end());
        }
        ipc_send(clients.back(), packet);
    }
    EXPECT_TRUE(ipc_turn_until(base, [&] {
        for (const unique_fd &client : clients) {
            while (ipc_receive(client).has_value()) {
                ++busy;
            }
        }
        return busy + fake.pushes.size() == 6 * 64;
    }));
    EXPECT_GT(busy, 0U);
    EXPECT_GE(fake.pushes.size(), 256U);
}

TEST_F(LocationPolicy, ALocationBeyondTheRoomThereIsIsDroppedWithALine)
{
    captured_log log;
    const std::string refused =
        "ERROR velm_location_policy_ipc - velm_location_policy_ipc_send - too many locations wait";
    std::size_t taken = 0;
    while (taken < 100000 && !log.has(refused)) {
        EXPECT_EQ(location_queue_size(), taken++);
        deliver("{}");
    }
    EXPECT_EQ(location_queue_size(), taken - 1) << "the last one was refused";
    ipc_turn(base, 2);
    log.clear();
    deliver("{}");
    EXPECT_FALSE(log.has(refused)) << "what is handed on makes room";
}

TEST_F(LocationPolicy, WhileAPacketWaitsForAClientTheNextDeliveryWaitsAndNoneIsLost)
{
    const unique_fd slow = connect();
    const unique_fd quick = connect();
    int all = deliver_until_one_waits();
    ASSERT_LT(all, 5000);
    for (int more = 0; more < 1000; ++more) {
        deliver_number(all++);
    }
    ipc_turn(base);
    EXPECT_EQ(location_queue_size(), 1001U);
    for (int number = 0; number < all; ++number) {
        ASSERT_NEAR(report_to(quick).latitude, number / 1000.0, 1e-9);
        ASSERT_NEAR(report_to(slow).latitude, number / 1000.0, 1e-9);
    }
}

TEST_F(LocationPolicy, AClientThatIsDroppedHoldsUpNothingAnyMore)
{
    unique_fd stuck = connect();
    const unique_fd reading = connect();
    const int all = deliver_until_one_waits();
    stuck.reset();
    for (int number = 0; number < all; ++number) {
        ASSERT_NEAR(report_to(reading).latitude, number / 1000.0, 1e-9);
    }
    EXPECT_EQ(location_queue_size(), 0U);
}

TEST_F(LocationPolicy, WhatWaitsWhenTheServerIsStoppedIsLogged)
{
    const unique_fd stuck = connect();
    deliver_until_one_waits();
    ASSERT_EQ(location_queue_size(), 1U);
    const captured_log log;
    location_policy_ipc_stop();
    velm_location_policy_ipc_init(&config);
    EXPECT_TRUE(log.has("ERROR velm_location_policy_ipc - velm_location_policy_ipc_init - "
                        "1 locations were not handed on"));
    EXPECT_EQ(location_queue_size(), 0U);
}

/// The 224 bytes as the table of the interface gives them, put together without the structure.
ipc_bytes expected_report()
{
    ipc_bytes bytes(224);
    const auto put = [&bytes](std::size_t offset, auto value) {
        std::memcpy(bytes.data() + offset, &value, sizeof value);
    };
    put(0, std::uint32_t{1});
    const std::uint8_t ip[] = {192, 168, 1, 23};
    std::copy(std::begin(ip), std::end(ip), bytes.begin() + 4);
    const std::string os_version = "17.4.1";
    std::copy(os_version.begin(), os_version.end(), bytes.begin() + 8);
    const std::string model = "iPhone15,2";
    std::copy(model.begin(), model.end(), bytes.begin() + 72);
    put(136, std::uint32_t{1699999990});
    put(140, std::uint8_t{1});
    const std::uint8_t bssid[] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0xff};
    std::copy(std::begin(bssid), std::end(bssid), bytes.begin() + 141);
    put(148, std::int16_t{-54});
    put(160, 52.2296756);
    put(168, -21.0122287);
    put(176, 4.5);
    put(184, 4.5);
    put(192, 0.0);
    put(200, 113.25);
    put(208, std::uint32_t{2});
    put(216, 3.5);
    return bytes;
}

TEST_F(LocationPolicy, AReportIsTheTableByteByByte)
{
    const unique_fd client = connect();
    const captured_log log;
    deliver();
    const auto packet = next_packet(client);
    ASSERT_TRUE(packet.has_value());
    const velm_frame_header header = ipc_header(*packet);
    EXPECT_EQ(header.type, 40960);
    EXPECT_EQ(header.len, 224);
    EXPECT_EQ(header.id, 1U);
    EXPECT_EQ(header.time, static_cast<std::uint32_t>(now));
    EXPECT_EQ(header.status, 0U);
    EXPECT_EQ(ipc_payload(*packet), expected_report());
    const std::string head = "TRACE velm_location_policy_ipc - location_policy_ipc_send - ";
    for (const char *text :
         {"from ip: 192.168.1.23", "declared bssid: 00:1a:2B:3c:4d:ff", "resp       size: 224",
          " .location size: 224", "time_t     size: 4"}) {
        EXPECT_TRUE(log.has(head + text)) << text;
    }
}

TEST_F(LocationPolicy, EachConnectedClientReceivesTheReportAlsoOneThatAskedNothing)
{
    const unique_fd asking = connect();
    const unique_fd silent = connect();
    ipc_send(asking, ipc_request(1));
    ipc_turn(base);
    deliver();
    EXPECT_EQ(report_to(asking).valid, 1U);
    EXPECT_EQ(report_to(silent).valid, 1U);
}

TEST_F(LocationPolicy, ThreeLocationsAreThreePacketsOfTwoHundredAndFortyBytesInOrder)
{
    const unique_fd client = connect();
    deliver(R"({"latitude": 1})");
    deliver(R"({"latitude": 2})");
    deliver(R"({"latitude": 3})");
    for (const double latitude : {1.0, 2.0, 3.0}) {
        const auto packet = next_packet(client);
        ASSERT_TRUE(packet.has_value());
        ASSERT_EQ(packet->size(), 240U);
        double sent = 0;
        std::memcpy(&sent, packet->data() + 16 + 160, sizeof sent);
        EXPECT_EQ(sent, latitude);
    }
}

TEST_F(LocationPolicy, NothingIsSentBeforeTheLoopTurns)
{
    const unique_fd client = connect();
    deliver();
    EXPECT_FALSE(ipc_receive(client).has_value());
    EXPECT_TRUE(next_packet(client).has_value());
}

struct time_case {
    const char *name, *location;
    std::uint32_t time;
};
class ReportTime : public LocationPolicy, public testing::WithParamInterface<time_case> {};

TEST_P(ReportTime, IsTheTimestampIfItParsesElseTheTimeOfBuilding)
{
    const unique_fd client = connect();
    deliver(GetParam().location);
    EXPECT_EQ(report_to(client).time, GetParam().time);
}

INSTANTIATE_TEST_SUITE_P(
    Timestamps, ReportTime,
    testing::Values(time_case{"Parses", R"({"timestamp": "1699999990"})", 1699999990},
                    time_case{"TooLarge", R"({"timestamp": "99999999999999999999999"})", now},
                    time_case{"Missing", R"({})", now},
                    time_case{"Number", R"({"timestamp": 1699999990})", now},
                    time_case{"Null", R"({"timestamp": null})", now},
                    time_case{"Lowest", R"({"timestamp": "0"})", 0},
                    time_case{"Negative", R"({"timestamp": "-1"})", now},
                    time_case{"Highest", R"({"timestamp": "4294967295"})", 4294967295},
                    time_case{"TooHigh", R"({"timestamp": "4294967296"})", now},
                    time_case{"Fraction", R"({"timestamp": "1699999990.5"})", now},
                    time_case{"Empty", R"({"timestamp": ""})", now},
                    time_case{"NoNumber", R"({"timestamp": "yesterday"})", now},
                    time_case{"TrailingText", R"({"timestamp": "12 o'clock"})", now}),
    [](const auto &row) { return std::string{row.param.name}; });

struct rssi_case {
    const char *name, *location;
    std::int16_t rssi;
};
class ReportRssi : public LocationPolicy, public testing::WithParamInterface<rssi_case> {};

TEST_P(ReportRssi, IsTruncatedTowardZeroAndClampedToSixteenBits)
{
    const unique_fd client = connect();
    deliver(GetParam().location);
    EXPECT_EQ(report_to(client).rssi, GetParam().rssi);
}

INSTANTIATE_TEST_SUITE_P(Numbers, ReportRssi,
                         testing::Values(rssi_case{"Whole", R"({"rssi": -70})", -70},
                                         rssi_case{"Below", R"({"rssi": -0.9})", 0},
                                         rssi_case{"Above", R"({"rssi": 1.9})", 1},
                                         rssi_case{"Lowest", R"({"rssi": -32768})", -32768},
                                         rssi_case{"TooLow", R"({"rssi": -32769})", -32768},
                                         rssi_case{"Highest", R"({"rssi": 32767})", 32767},
                                         rssi_case{"TooHigh", R"({"rssi": 32768})", 32767},
                                         rssi_case{"Huge", R"({"rssi": 1e300})", 32767},
                                         rssi_case{"Text", R"({"rssi": "-70"})", 0}),
                         [](const auto &row) { return std::string{row.param.name}; });

struct place_case {
    const char *name, *location;
    bool reported;
};
class Place : public LocationPolicy, public testing::WithParamInterface<place_case> {};

TEST_P(Place, IsHandedOnWhenItIsOnTheMap)
{
    const unique_fd client = connect();
    const captured_log log;
    deliver(GetParam().location);
    deliver(R"({"latitude": 7})"); // the next one of the list
    if (GetParam().reported) {
        report_to(client);
    }
    EXPECT_EQ(report_to(client).latitude, 7.0);
    EXPECT_EQ(log.contains("WARN velm_location_policy_ipc - location_policy_ipc_send - "),
              !GetParam().reported);
    EXPECT_EQ(log.contains("device id phone-1, ip address 192.168.1.23"), !GetParam().reported);
}

INSTANTIATE_TEST_SUITE_P(
    Locations, Place,
    testing::Values(place_case{"North", R"({"latitude": 90})", true},
                    place_case{"BeyondNorth", R"({"latitude": 90.0000001})", false},
                    place_case{"South", R"({"latitude": -90})", true},
                    place_case{"BeyondSouth", R"({"latitude": -90.0000001})", false},
                    place_case{"East", R"({"longitude": 180})", true},
                    place_case{"BeyondEast", R"({"longitude": 180.0000001})", false},
                    place_case{"West", R"({"longitude": -180})", true},
                    place_case{"BeyondWest", R"({"longitude": -180.0000001})", false},
                    place_case{"InfiniteLatitude", R"({"latitude": 1e999})", false},
                    place_case{"InfiniteLongitude", R"({"longitude": -1e999})", false},
                    place_case{"InfiniteAccuracy", R"({"accuracy": 1e999})", false},
                    place_case{"InfiniteAltitude", R"({"altitude": 1e999})", false},
                    place_case{"InfiniteVerticalAccuracy", R"({"verticalAccuracy": 1e999})", false},
                    place_case{"InfiniteRssi", R"({"rssi": -1e999})", false}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(LocationPolicy, ANumberThatIsNoneIsNotHandedOn)
{
    const unique_fd client = connect();
    const captured_log log;
    const json_ptr auth{cJSON_Parse(good_auth)};
    const json_ptr location{cJSON_CreateObject()};
    cJSON_AddNumberToObject(location.get(), "latitude", std::numeric_limits<double>::quiet_NaN());
    velm_location_policy_ipc_send("10.0.0.1", auth.get(), location.get());
    EXPECT_TRUE(
        ipc_turn_until(base, [&log] { return log.contains("a number that is not finite"); }));
    EXPECT_FALSE(ipc_receive(client).has_value());
}

class NoObject : public LocationPolicy, public testing::WithParamInterface<const char *> {};

TEST_P(NoObject, GivesAReportOfZerosAndTheTimeOfBuilding)
{
    const unique_fd client = connect();
    deliver(GetParam());
    const velm_location_report report = report_to(client);
    EXPECT_EQ(report.valid, 1U);
    EXPECT_EQ(report.time, static_cast<std::uint32_t>(now));
    EXPECT_EQ(report.rssi, 0);
    EXPECT_EQ(report.latitude, 0.0);
    EXPECT_EQ(report.longitude, 0.0);
    EXPECT_EQ(report.horizontal_uncertainty1, 0.0);
    EXPECT_EQ(report.height, 0.0);
    EXPECT_EQ(report.height_kind, 2U);
    EXPECT_EQ(report.vertical_uncertainty, 0.0);
}

INSTANTIATE_TEST_SUITE_P(Elements, NoObject,
                         testing::Values("1", "\"text\"", "null", "true", "[]", "[[1]]"));

TEST_F(LocationPolicy, PhoneTextsAreCutToSixtyThreeCharactersAndTerminated)
{
    fake.os_version = std::string(63, 'o');
    fake.dev_model = std::string(64, 'm');
    const unique_fd client = connect();
    deliver();
    const velm_location_report report = report_to(client);
    EXPECT_EQ(std::string(report.os_version), std::string(63, 'o'));
    EXPECT_EQ(std::string(report.phone_model), std::string(63, 'm'));
}

struct refused_case {
    const char *name, *auth, *ip, *log;
};
class Refused : public LocationPolicy, public testing::WithParamInterface<refused_case> {};

TEST_P(Refused, IsLoggedAndNothingIsReported)
{
    const unique_fd client = connect();
    const captured_log log;
    deliver(good_location, GetParam().auth, GetParam().ip);
    EXPECT_TRUE(ipc_turn_until(base, [&log] { return log.contains("ERROR"); }));
    EXPECT_TRUE(
        log.has(std::string{"ERROR velm_location_policy_ipc - location_policy_ipc_send - "} +
                GetParam().log));
    EXPECT_EQ(log.count("ERROR"), 1);
    EXPECT_FALSE(ipc_receive(client).has_value());
}

INSTANTIATE_TEST_SUITE_P(
    Deliveries, Refused,
    testing::Values(
        refused_case{"NoDevice", R"({"bssid": "x"})", "x", "missing device id"},
        refused_case{"EmptyDevice", R"({"deviceId": ""})", "x", "missing device id"},
        refused_case{"DeviceIsNoText", R"({"deviceId": 1})", "x", "missing device id"},
        refused_case{"StrangeDevice", R"({"deviceId": "phone-2"})", "x",
                     "no pairing for device id phone-2"},
        refused_case{"NoAddress", R"({"deviceId": "phone-1"})", "x", "invalid ip address x"},
        refused_case{"EmptyAddress", R"({"deviceId": "phone-1"})", "", "invalid ip address "},
        refused_case{"SixAddress", R"({"deviceId": "phone-1"})", "fe80::1",
                     "invalid ip address fe80::1"},
        refused_case{"NoBssid", R"({"deviceId": "phone-1"})", "10.0.0.1", "missing bssid"},
        refused_case{"EmptyBssid", R"({"deviceId": "phone-1", "bssid": ""})", "10.0.0.1",
                     "missing bssid"},
        refused_case{"FiveGroups", R"({"deviceId": "phone-1", "bssid": "1:2:3:4:5"})", "10.0.0.1",
                     "invalid bssid 1:2:3:4:5"}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(LocationPolicy, WithoutAServerALocationIsLoggedAndDropped)
{
    const captured_log log;
    deliver();
    location_policy_ipc_stop();
    ipc_turn(base);
    EXPECT_TRUE(
        log.has("ERROR velm_location_policy_ipc - location_policy_ipc_send - no IPC server"));
}

TEST_F(LocationPolicy, AReportThatOneClientDoesNotTakeIsAFailure)
{
    unique_fd leaving = connect();
    const captured_log log;
    deliver();
    leaving.reset(); // the loop has not seen it yet
    EXPECT_TRUE(ipc_turn_until(base, [&log] {
        return log.has("ERROR velm_location_policy_ipc - location_policy_ipc_send - failed");
    }));
}

TEST_F(LocationPolicy, StartingAgainServesAtTheNewPathAndEndsTheOldConnections)
{
    const unique_fd old = connect();
    const captured_log log;
    use_socket(directory.path() + "/other");
    location_policy_ipc_start();
    EXPECT_TRUE(log.has("INFO velm_location_policy_ipc - location_policy_ipc_stop"));
    EXPECT_EQ(ipc_receive(old), ipc_bytes{});
    EXPECT_FALSE(ipc_connect(socket_path));
    EXPECT_TRUE(ipc_connect(directory.path() + "/other"));
}

TEST_F(LocationPolicy, WithoutAPathThereIsNoServer)
{
    use_socket("");
    const captured_log log;
    location_policy_ipc_start();
    EXPECT_TRUE(
        log.has("TRACE velm_location_policy_ipc - location_policy_ipc_start - not configured"));
    EXPECT_FALSE(ipc_connect(socket_path));
}

TEST_F(LocationPolicy, ASocketThatCannotBeSetUpLeavesTheDaemonRunningWithoutIt)
{
    std::ofstream{directory.path() + "/file"} << "x";
    use_socket(directory.path() + "/file/socket");
    const captured_log log;
    location_policy_ipc_start();
    EXPECT_TRUE(log.contains("ERROR IPC - Cannot create listener"));
    deliver();
    ipc_turn(base);
    EXPECT_TRUE(log.contains("no IPC server"));
}

TEST_F(LocationPolicy, APathTooLongForASocketLeavesTheDaemonRunningWithoutIt)
{
    use_socket("/" + std::string(107, 's'));
    const captured_log log;
    location_policy_ipc_start();
    EXPECT_TRUE(log.contains("ERROR IPC - velm_ipc_create - path is longer than 107 characters"));
}

TEST_F(LocationPolicy, InitLogsItsName)
{
    const captured_log log;
    velm_location_policy_ipc_init(&config);
    EXPECT_TRUE(log.has("TRACE velm_location_policy_ipc - velm_location_policy_ipc_init"));
}

TEST_F(LocationPolicy, NullArgumentsAreFatal)
{
    const captured_log log;
    const json_ptr object{cJSON_CreateObject()};
    EXPECT_DEATH(velm_location_policy_ipc_send(nullptr, object.get(), object.get()),
                 "velm_location_policy_ipc_send: ip is null: null reference");
    EXPECT_DEATH(velm_location_policy_ipc_send("x", nullptr, object.get()),
                 "velm_location_policy_ipc_send: auth is null: null reference");
    EXPECT_DEATH(velm_location_policy_ipc_send("x", object.get(), nullptr),
                 "velm_location_policy_ipc_send: location is null: null reference");
    EXPECT_DEATH(velm_location_policy_ipc_init(nullptr),
                 "velm_location_policy_ipc_init: config is null: null reference");
}

int allocations_left = 0;

void *scarce_malloc(std::size_t size)
{
    return allocations_left-- > 0 ? std::malloc(size) : nullptr;
}

void deliver_with_memory_for(int allocations, const cJSON *object)
{
    allocations_left = allocations;
    cJSON_Hooks hooks{scarce_malloc, std::free};
    cJSON_InitHooks(&hooks);
    velm_location_policy_ipc_send("10.0.0.1", object, object);
}

TEST_F(LocationPolicy, ACopyThatFindsNoMemoryIsFatalUnderItsName)
{
    const captured_log log;
    const json_ptr object{cJSON_CreateObject()};
    EXPECT_DEATH(deliver_with_memory_for(0, object.get()),
                 "velm_location_policy_ipc_send: d->auth is null: not enough memory");
    const json_ptr auth{cJSON_Parse(good_auth)};
    EXPECT_DEATH(deliver_with_memory_for(1, auth.get()),
                 "velm_location_policy_ipc_send: d->auth is null: not enough memory");
}

TEST_F(LocationPolicy, TellsTheTimeOutOfARequestAndWhoseReportAnsweredIt)
{
    story_forget();
    fake.pairings = 1;
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1, 45));
    ASSERT_TRUE(ipc_turn_until(base, [] { return !fake.pushes.empty(); }));
    EXPECT_EQ(story_look().rounds.at(0).round->timeout_s, 45U);
    deliver();
    ASSERT_TRUE(next_packet(client).has_value());
    const story_view view = story_look();
    EXPECT_EQ(view.rounds.at(0).round->state, story_state::answered);
    EXPECT_STREQ(view.rounds.at(0).reports.at(0)->device_id, "phone-1");
    EXPECT_EQ(view.rounds.at(0).reports.at(0)->address, inet_addr("192.168.1.23"));
    story_forget();
}

TEST_F(LocationPolicy, TellsThatNobodyIsPairedAndThatALocationWasNotHandedOn)
{
    story_forget();
    fake.pairings = 0;
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1, 45));
    ASSERT_TRUE(next_packet(client).has_value());
    EXPECT_EQ(story_cause_of(*story_look().rounds.at(0).round), story_cause::no_pairings);
    deliver(R"({"latitude": 91})");
    ipc_turn(base);
    const story_view view = story_look();
    ASSERT_EQ(view.visits.size(), 1U);
    EXPECT_STREQ(view.visits[0]->check, story_location_check);
    EXPECT_STREQ(view.visits[0]->why, "it is on no map");
    EXPECT_STREQ(view.visits[0]->device_id, "phone-1");
    EXPECT_TRUE(view.rounds.at(0).reports.empty());
    story_forget();
}

} // namespace
