#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <velm/location_policy.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "allocation_meter.h"
#include "fakes/ipc_peer.h"
#include "fuzz_target.h"
#include "handles/libevent.h"
#include "velm_conn.h"
#include "velm_ipc_cmd.h"

/// The packets of a local client, through a real connection: each begins with its length.

namespace {

struct taken_request {
    std::uint32_t id;
    std::string payload;
    bool operator==(const taken_request &) const = default;
};
std::vector<taken_request> taken;

bool is_refused(std::uint32_t id)
{
    return id % 2 != 0;
}

int take(velm_conn *, std::uint32_t id, std::uint16_t type, const void *payload, std::size_t len,
         std::time_t)
{
    FUZZ_REQUIRE(type == VELM_LOCATION_REQUEST && len == sizeof(velm_location_request));
    taken.push_back({id, {static_cast<const char *>(payload), len}});
    return is_refused(id) ? 0 : 1;
}

/// What should be taken: one walk along all that was ever read.
class reference {
  public:
    void read(std::string_view piece)
    {
        all_ += piece;
        while (at_ + sizeof(velm_frame_header) <= all_.size()) {
            velm_frame_header header{};
            std::memcpy(&header, &all_[at_], sizeof header);
            const std::size_t end = at_ + sizeof header + header.len;
            if (header.type != VELM_LOCATION_REQUEST) {
                at_ = all_.size();
                return;
            }
            if (header.len != sizeof(velm_location_request)) {
                at_ = end;
                continue;
            }
            if (end > all_.size()) {
                return;
            }
            requests.push_back({header.id, all_.substr(end - header.len, header.len)});
            at_ = end;
        }
    }

    void packet(std::string_view bytes)
    {
        for (; !bytes.empty(); bytes.remove_prefix(std::min<std::size_t>(1024, bytes.size()))) {
            read(bytes.substr(0, 1024));
        }
    }

    std::vector<taken_request> requests;

  private:
    std::string all_;
    std::size_t at_ = 0;
};

/// Until all is read that was sent: after a long packet its sender rests for a while.
void turn_until_read(event_base *loop, const unique_fd &client)
{
    int unread = 0;
    do {
        event_base_loop(loop, EVLOOP_NONBLOCK);
        FUZZ_REQUIRE(ioctl(client.get(), SIOCOUTQ, &unread) == 0);
    } while (unread > 0);
}

/// The busy answers, one packet each.
std::vector<std::uint32_t> answers(const unique_fd &client)
{
    std::vector<std::uint32_t> ids;
    while (const auto packet = ipc_receive(client)) {
        FUZZ_REQUIRE(packet->size() == sizeof(velm_frame_header));
        const velm_frame_header header = ipc_header(*packet);
        FUZZ_REQUIRE(header.type == VELM_LOCATION_REQUEST && header.len == 0);
        FUZZ_REQUIRE(header.status == VELM_STATUS_BUSY);
        ids.push_back(header.id);
    }
    return ids;
}

void run(event_base *loop, fuzz_input in)
{
    std::array<int, 2> pair{};
    FUZZ_REQUIRE(
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) == 0);
    const unique_fd client{pair[0]};
    const velm_conn_ptr conn =
        velm_conn_create(loop, unique_fd{pair[1]}, nullptr, velm_ipc_cmd_read, take);
    reference expected;
    std::vector<std::uint32_t> busy;
    while (!in.empty()) {
        const std::string_view packet = fuzz_text(in.bytes(in.word()));
        FUZZ_REQUIRE(send(client.get(), packet.data(), packet.size(), MSG_NOSIGNAL) >= 0);
        turn_until_read(loop, client);
        expected.packet(packet);
        const auto more = answers(client);
        busy.insert(busy.end(), more.begin(), more.end());
    }
    FUZZ_REQUIRE(!velm_conn_is_closed(conn.get()));
    FUZZ_REQUIRE(taken == expected.requests);
    std::erase_if(taken, [](const taken_request &request) { return !is_refused(request.id); });
    FUZZ_REQUIRE(std::ranges::equal(taken, busy, {}, &taken_request::id));
    taken = std::vector<taken_request>{};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const event_base_ptr loop{event_base_new()};
    run(loop.get(), {data, size}); // the loop's tables grow, and stay
    const allocation_meter meter;
    run(loop.get(), {data, size});
    FUZZ_REQUIRE(meter.peak() <= 12 * size + 16 * 1024);
    FUZZ_REQUIRE(meter.left() == 0);
    return 0;
}
