#include "velm_ipc_cmd.h"

#include <velm/location_policy.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>

#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "IPC_CMD";
constexpr std::size_t header_size = sizeof(velm_frame_header);
constexpr std::size_t request_size = sizeof(velm_location_request);
constexpr std::size_t report_size = sizeof(velm_location_report);

int frame_write(velm_conn *conn, velm_frame_header header, const void *payload)
{
    header.time = static_cast<std::uint32_t>(std::time(nullptr));
    std::array<std::uint8_t, header_size + report_size> frame{};
    std::memcpy(frame.data(), &header, header_size);
    if (header.len > 0) {
        std::memcpy(frame.data() + header_size, payload, header.len);
    }
    return velm_conn_write(conn, std::span{frame}.first(header_size + header.len)) ? 1 : 0;
}

bool is_refused(const velm_conn *conn, const void *payload, std::size_t len, std::size_t limit)
{
    return velm_conn_is_closed(conn) || len > limit || (payload == nullptr && len > 0);
}

void request_handle(velm_conn *conn, const velm_frame_header &header, const std::uint8_t *payload,
                    velm_conn_frame_handler handler)
{
    if (handler == nullptr) {
        return;
    }
    const std::time_t deadline = std::time(nullptr) + velm_ipc_cmd_request_lifetime_s;
    if (handler(conn, header.id, header.type, payload, header.len, deadline) == 0) {
        LOG_TRACE("Send busy");
        velm_ipc_cmd_send_resp(conn, VELM_LOCATION_REQUEST, header.id, VELM_STATUS_BUSY, nullptr,
                               0);
    }
}

/// Walks over the buffer and returns how many of its bytes are done with.
std::size_t frames_parse(velm_conn *conn, velm_ipc_cmd_input &input,
                         velm_conn_frame_handler handler)
{
    std::span<const std::uint8_t> left{input.buffer};
    while (true) {
        const std::size_t skipped = std::min(input.skip, left.size());
        input.skip -= skipped;
        left = left.subspan(skipped);
        if (left.size() < header_size || velm_conn_is_closed(conn)) {
            break;
        }
        velm_frame_header header{};
        std::memcpy(&header, left.data(), header_size);
        if (header.type != VELM_LOCATION_REQUEST) {
            return input.buffer.size();
        }
        if (header.len != request_size) {
            input.skip = header_size + header.len;
            continue;
        }
        if (left.size() < header_size + request_size) {
            break;
        }
        request_handle(conn, header, left.data() + header_size, handler);
        left = left.subspan(header_size + request_size);
    }
    return input.buffer.size() - left.size();
}

} // namespace

void velm_ipc_cmd_read(velm_conn *conn, velm_ipc_cmd_input &input,
                       std::span<const std::uint8_t> bytes, velm_conn_frame_handler handler)
{
    input.buffer.insert(input.buffer.end(), bytes.begin(), bytes.end());
    const std::size_t done = frames_parse(conn, input, handler);
    input.buffer.erase(input.buffer.begin(),
                       input.buffer.begin() + static_cast<std::ptrdiff_t>(done));
}

int velm_ipc_cmd_send_resp(velm_conn *conn, std::uint16_t type, std::uint32_t id,
                           std::uint32_t status, const void *payload, std::size_t len)
{
    if (is_refused(conn, payload, len, report_size)) {
        return 0;
    }
    LOG_TRACE("%s - payload size: %zu", __func__, len);
    LOG_TRACE("%s - total size:   %zu", __func__, header_size + len);
    return frame_write(conn, {type, static_cast<std::uint16_t>(len), id, 0, status}, payload);
}

int velm_ipc_cmd_send_req(velm_conn *conn, std::uint16_t type, std::uint32_t id,
                          const void *payload, std::size_t len)
{
    if (is_refused(conn, payload, len, request_size)) {
        return 0;
    }
    LOG_TRACE("%s - payload size: %zu", __func__, len);
    LOG_TRACE("%s - total size:   %zu", __func__, header_size + len);
    return frame_write(conn, {type, static_cast<std::uint16_t>(len), id, 0, VELM_STATUS_OK},
                       payload);
}
