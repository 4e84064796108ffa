// First: libevhtp's headers rename what the system's regex.h declares.
#include "fakes/served_connections.h"

#include "http_server/handshakes.h"

namespace {

using namespace served_connections;

class Handshakes : public Connections {};

/// Has sent its hello and does not go on.
std::unique_ptr<https_client> begun(std::unique_ptr<https_client> peer)
{
    EXPECT_EQ(SSL_do_handshake(peer->tls()), -1);
    return peer;
}

bool is_answered(const std::unique_ptr<https_client> &peer)
{
    char byte = 0;
    return recv(peer->fd(), &byte, 1, MSG_PEEK) == 1;
}

http_connection_limits patient()
{
    http_connection_limits limits;
    limits.handshakes.time = {20, 0};
    return limits;
}

TEST_F(Handshakes, OfOneAddressTwoShakeHandsAtATimeAndTheNextHasItsTurnThen)
{
    serve(patient());
    const auto first = begun(client());
    const auto second = begun(client());
    const auto third = begun(client());
    EXPECT_TRUE(turn_until(loop, [&] { return is_answered(second); }));
    turn_for(loop, 50ms);
    EXPECT_FALSE(is_answered(third));
    EXPECT_TRUE(first->handshake());
    EXPECT_TRUE(third->handshake());
    EXPECT_EQ(third->ask(get).status, 200);
}

TEST_F(Handshakes, AWaitingClientThatLeavesIsForgottenAtItsTurn)
{
    serve(patient());
    const auto first = begun(client());
    const auto second = begun(client());
    const auto third = begun(client());
    ASSERT_TRUE(reaches(3));
    third->reset();
    first->reset();
    EXPECT_TRUE(reaches(1));
    EXPECT_TRUE(second->handshake());
}

TEST_F(Handshakes, OtherAddressesShakeHandsBesideUpToTheTotal)
{
    http_connection_limits limits = patient();
    limits.handshakes.total = 3;
    serve(limits);
    const auto first = begun(client());
    const auto second = begun(client());
    const auto third = begun(client());
    EXPECT_TRUE(turn_until(loop, [&] { return is_answered(second); }));
    const auto other = connected("127.0.0.2");
    const auto slow = begun(client("127.0.0.2"));
    const auto late = begun(client("127.0.0.3"));
    EXPECT_TRUE(turn_until(loop, [&] { return is_answered(slow); }));
    turn_for(loop, 50ms);
    EXPECT_FALSE(is_answered(late));
    first->reset();
    // An address without any goes before one that has another under way.
    EXPECT_TRUE(late->handshake());
}

TEST_F(Handshakes, AHandshakeThatTakesTooLongMakesRoomForWhoWaits)
{
    http_connection_limits limits;
    limits.handshakes.time = {0, 100 * 1000};
    serve(limits);
    const auto first = begun(client());
    const auto second = begun(client());
    turn_for(loop, 400ms);
    EXPECT_EQ(http_connections_count(), 2U); // nobody waits
    const auto third = client();
    EXPECT_TRUE(third->handshake());
    EXPECT_EQ(http_connections_count(), 2U);
    EXPECT_EQ(log.count("on_check - closing a connection, another waits for its handshake"), 1);
}

TEST_F(Handshakes, WhoSaysNothingTakesNobodysTurn)
{
    serve(patient());
    const auto first = client();
    const auto second = client();
    const auto third = client();
    ASSERT_TRUE(reaches(3));
    EXPECT_EQ(connected()->ask(get).status, 200);
    EXPECT_TRUE(third->handshake());
}

} // namespace
