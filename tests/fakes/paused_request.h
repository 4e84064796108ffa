#pragma once

#include <evhtp/evhtp.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// The loop of a test program, with the async module running on it. Made once and never freed, as
/// in the daemon.
event_base *test_loop();

/// Turns the test loop until it has nothing to do at once.
void turn_test_loop();

/// Runs what waits, but none of its next steps: as on a busy daemon, another action waits behind it.
void step_test_loop();

/// A real request that a real server received from a real client on the loopback (plain HTTP) and
/// paused, as a route does before its checks. The server and everything of it go with the object.
class paused_request {
  public:
    using headers = std::vector<std::pair<std::string, std::string>>;

    explicit paused_request(const std::string &body, const headers &sent = {},
                            const std::string &path = "/location");
    /// A client on a Unix socket, so a peer without an IP address.
    static paused_request without_ip_address(const std::string &body);
    ~paused_request();
    paused_request(const paused_request &) = delete;
    paused_request &operator=(const paused_request &) = delete;

    /// Null once the connection has gone. Not to be touched after a reply.
    [[nodiscard]] evhtp_request_t *get() const;
    /// Puts a header into the received request, however long it is.
    void add_header(const std::string &name, const std::string &value);
    /// Puts other bytes in the place of the received body, however many.
    void replace_body(const std::string &body);
    /// What a server stop does: frees the connection on the server's side, and the request with it.
    void free_connection();
    /// What the client receives until the head and the body of a reply are complete, within a
    /// bounded time.
    [[nodiscard]] std::string reply();

  private:
    enum class transport { tcp, unix_socket };
    paused_request(transport way, const std::string &body, const headers &sent,
                   const std::string &path);
    void listen_and_connect(transport way);
    static void pause(evhtp_request_t *request, void *self);
    static std::uint16_t forget(evhtp_connection_t *connection, void *self);
    static std::uint16_t accept(evhtp_connection_t *connection, void *self);

    evhtp_t *server_ = nullptr;
    evhtp_connection_t *connection_ = nullptr;
    evhtp_request_t *request_ = nullptr;
    int client_ = -1;
    std::string socket_path_;
};
