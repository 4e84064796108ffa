#include "velm_ipc_cmd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/ipc_peer.h"

// The connection is a record of what is written to it.
struct velm_conn {
    std::vector<ipc_bytes> written;
    bool closed = false;
};

bool velm_conn_is_closed(const velm_conn *conn)
{
    return conn->closed;
}

bool velm_conn_write(velm_conn *conn, std::span<const std::uint8_t> packet)
{
    conn->written.emplace_back(packet.begin(), packet.end());
    return true;
}

namespace {

struct handled_frame {
    std::uint32_t id;
    std::uint16_t type;
    ipc_bytes payload;
    std::time_t deadline;
};

std::vector<handled_frame> handled;
int handler_result = 1;
bool handler_closes = false;

int note_frame(velm_conn *conn, std::uint32_t id, std::uint16_t type, const void *payload,
               std::size_t len, std::time_t deadline)
{
    const auto *const bytes = static_cast<const std::uint8_t *>(payload);
    handled.push_back({id, type, ipc_bytes(bytes, bytes + len), deadline});
    conn->closed = handler_closes;
    return handler_result;
}

ipc_bytes join(std::initializer_list<ipc_bytes> parts)
{
    ipc_bytes all;
    for (const ipc_bytes &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

class IpcCmd : public testing::Test {
  protected:
    IpcCmd()
    {
        handled.clear();
        handler_result = 1;
        handler_closes = false;
        fake_clock_set(1700000000);
    }
    ~IpcCmd() override
    {
        fake_clock_reset();
    }

    void read(const ipc_bytes &bytes)
    {
        velm_ipc_cmd_read(&conn, input, bytes, note_frame);
    }

    [[nodiscard]] static std::vector<std::uint32_t> handled_ids()
    {
        std::vector<std::uint32_t> ids;
        for (const handled_frame &frame : handled) {
            ids.push_back(frame.id);
        }
        return ids;
    }

    velm_conn conn;
    velm_ipc_cmd_input input;
};

TEST_F(IpcCmd, ARequestReachesTheHandlerWithADeadlineSixHundredSecondsAhead)
{
    read(ipc_request(77, 515));
    ASSERT_EQ(handled.size(), 1U);
    EXPECT_EQ(handled[0].id, 77U);
    EXPECT_EQ(handled[0].type, 4096);
    EXPECT_EQ(handled[0].deadline, 1700000600);
    ASSERT_EQ(handled[0].payload.size(), 140U);
    std::uint16_t wanted_within = 0;
    std::memcpy(&wanted_within, handled[0].payload.data(), sizeof wanted_within);
    EXPECT_EQ(wanted_within, 515);
    EXPECT_TRUE(conn.written.empty());
}

TEST_F(IpcCmd, ARequestSplitAnywhereIsParsedOnceBothHalvesArrived)
{
    const ipc_bytes request = ipc_request(5);
    for (std::ptrdiff_t cut = 1; cut < 156; ++cut) {
        handled.clear();
        read(ipc_bytes(request.begin(), request.begin() + cut));
        EXPECT_TRUE(handled.empty()) << cut;
        read(ipc_bytes(request.begin() + cut, request.end()));
        EXPECT_EQ(handled.size(), 1U) << cut;
    }
    EXPECT_TRUE(input.buffer.empty());
}

TEST_F(IpcCmd, TwentySixRequestsInOneReadAreAllHandledInOrder)
{
    ipc_bytes packet;
    std::vector<std::uint32_t> expected;
    for (std::uint32_t id = 1; id <= 26; ++id) {
        packet = join({packet, ipc_request(id)});
        expected.push_back(id);
    }
    read(packet);
    EXPECT_EQ(handled_ids(), expected);
}

struct skipped_case {
    const char *name;
    std::uint16_t len;
};
class SkippedFrame : public IpcCmd, public testing::WithParamInterface<skipped_case> {};

TEST_P(SkippedFrame, IsSkippedAndTheNextFrameInTheBufferIsStillServed)
{
    const ipc_bytes odd = ipc_frame(4096, 1, ipc_bytes(GetParam().len, 0xee));
    read(join({odd, ipc_request(2)}));
    EXPECT_EQ(handled_ids(), std::vector<std::uint32_t>{2});
    EXPECT_TRUE(conn.written.empty());
}

TEST_P(SkippedFrame, IsSkippedWholeAlsoWhenItComesByteByByte)
{
    for (const std::uint8_t byte :
         join({ipc_frame(4096, 1, ipc_bytes(GetParam().len, 0xee)), ipc_request(2)})) {
        read({byte});
        ASSERT_LE(input.buffer.size(), 156U);
    }
    EXPECT_EQ(handled_ids(), std::vector<std::uint32_t>{2});
}

INSTANTIATE_TEST_SUITE_P(Lengths, SkippedFrame,
                         testing::Values(skipped_case{"None", 0}, skipped_case{"OneShort", 139},
                                         skipped_case{"OneMore", 141},
                                         skipped_case{"ReportSized", 224},
                                         skipped_case{"Longest", 65535}),
                         [](const auto &row) { return std::string{row.param.name}; });

class OtherType : public IpcCmd, public testing::WithParamInterface<std::uint16_t> {};

TEST_P(OtherType, EmptiesTheWholeBufferAndTheNextReadStartsAfresh)
{
    const ipc_bytes strange = ipc_frame(GetParam(), 2, ipc_bytes(140));
    read(join({ipc_request(1), strange, ipc_request(3)}));
    EXPECT_EQ(handled_ids(), std::vector<std::uint32_t>{1});
    EXPECT_TRUE(input.buffer.empty());
    read(ipc_request(4));
    EXPECT_EQ(handled_ids(), (std::vector<std::uint32_t>{1, 4}));
}

INSTANTIATE_TEST_SUITE_P(Types, OtherType, testing::Values(0, 1, 4095, 4097, 40960, 65535));

TEST_F(IpcCmd, AHeaderIsNotJudgedBeforeItsSixteenthByte)
{
    read(ipc_bytes(15, 0xff));
    EXPECT_EQ(input.buffer.size(), 15U);
    read({0xff});
    EXPECT_TRUE(input.buffer.empty());
}

TEST_F(IpcCmd, ARefusedRequestIsAnsweredWithBusyAndNoPayload)
{
    handler_result = 0;
    const captured_log log;
    read(ipc_request(99));
    ASSERT_EQ(conn.written.size(), 1U);
    EXPECT_EQ(conn.written[0].size(), 16U);
    const velm_frame_header header = ipc_header(conn.written[0]);
    EXPECT_EQ(header.type, 4096);
    EXPECT_EQ(header.len, 0);
    EXPECT_EQ(header.id, 99U);
    EXPECT_EQ(header.time, 1700000000U);
    EXPECT_EQ(header.status, 1U);
    EXPECT_TRUE(log.has("TRACE IPC_CMD - Send busy"));
}

TEST_F(IpcCmd, WithoutAHandlerFramesAreDroppedSilently)
{
    velm_ipc_cmd_read(&conn, input, ipc_request(1), nullptr);
    EXPECT_TRUE(input.buffer.empty());
    EXPECT_TRUE(conn.written.empty());
}

TEST_F(IpcCmd, ParsingStopsWhenTheHandlerEndsTheConnection)
{
    handler_closes = true;
    read(join({ipc_request(1), ipc_request(2)}));
    EXPECT_EQ(handled_ids(), std::vector<std::uint32_t>{1});
}

TEST_F(IpcCmd, AnAnswerIsTheHeaderWithThePayloadBehindIt)
{
    ipc_bytes payload(224);
    std::fill(payload.begin(), payload.end(), static_cast<std::uint8_t>(0xab));
    const captured_log log;
    EXPECT_EQ(velm_ipc_cmd_send_resp(&conn, 40960, 7, 3, payload.data(), payload.size()), 1);
    ASSERT_EQ(conn.written.size(), 1U);
    // In the byte order of the machine.
    const std::uint16_t type_and_length[] = {40960, 224};
    const std::uint32_t id_time_status[] = {7, 1700000000, 3};
    ipc_bytes expected_head(16);
    std::memcpy(expected_head.data(), type_and_length, sizeof type_and_length);
    std::memcpy(expected_head.data() + 4, id_time_status, sizeof id_time_status);
    EXPECT_EQ(conn.written[0], join({expected_head, payload}));
    EXPECT_TRUE(log.has("TRACE IPC_CMD - velm_ipc_cmd_send_resp - payload size: 224"));
    EXPECT_TRUE(log.has("TRACE IPC_CMD - velm_ipc_cmd_send_resp - total size:   240"));
}

TEST_F(IpcCmd, ARequestToSendIsAFrameOfAtMostOneHundredAndFortyBytes)
{
    const ipc_bytes payload(141, 1);
    const captured_log log;
    EXPECT_EQ(velm_ipc_cmd_send_req(&conn, 4096, 8, payload.data(), 140), 1);
    EXPECT_EQ(velm_ipc_cmd_send_req(&conn, 4096, 8, payload.data(), 141), 0);
    ASSERT_EQ(conn.written.size(), 1U);
    EXPECT_EQ(conn.written[0].size(), 156U);
    EXPECT_EQ(ipc_header(conn.written[0]).status, 0U);
    EXPECT_TRUE(log.has("TRACE IPC_CMD - velm_ipc_cmd_send_req - payload size: 140"));
    EXPECT_TRUE(log.has("TRACE IPC_CMD - velm_ipc_cmd_send_req - total size:   156"));
}

TEST_F(IpcCmd, AnAnswerAboveTwoHundredAndTwentyFourBytesIsRefused)
{
    const ipc_bytes payload(225, 1);
    EXPECT_EQ(velm_ipc_cmd_send_resp(&conn, 4096, 8, 0, payload.data(), 224), 1);
    EXPECT_EQ(velm_ipc_cmd_send_resp(&conn, 4096, 8, 0, payload.data(), 225), 0);
    EXPECT_EQ(conn.written.size(), 1U);
}

TEST_F(IpcCmd, ANullPayloadIsRefusedUnlessItIsEmpty)
{
    EXPECT_EQ(velm_ipc_cmd_send_resp(&conn, 4096, 8, 0, nullptr, 1), 0);
    EXPECT_EQ(velm_ipc_cmd_send_req(&conn, 4096, 8, nullptr, 1), 0);
    EXPECT_TRUE(conn.written.empty());
    EXPECT_EQ(velm_ipc_cmd_send_resp(&conn, 4096, 8, 0, nullptr, 0), 1);
    EXPECT_EQ(velm_ipc_cmd_send_req(&conn, 4096, 8, nullptr, 0), 1);
}

TEST_F(IpcCmd, AClosedConnectionRefusesEverySend)
{
    conn.closed = true;
    const std::uint8_t byte = 1;
    EXPECT_EQ(velm_ipc_cmd_send_resp(&conn, 4096, 8, 0, &byte, 1), 0);
    EXPECT_EQ(velm_ipc_cmd_send_req(&conn, 4096, 8, &byte, 1), 0);
    EXPECT_TRUE(conn.written.empty());
}

} // namespace
