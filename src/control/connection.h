#pragma once

#include <event2/event.h>

#include <cstdint>
#include <string>

#include "handles/fd.h"
#include "handles/libevent.h"

/// One connection of the control socket: a head comes in, one answer goes out, and that was all.
///
/// Every phase has its end in time, so a client that does nothing holds its place for a while only.
/// Reading and writing never block.

inline constexpr timeval control_head_time{5, 0};    // for the whole head
inline constexpr timeval control_answer_time{10, 0}; // to take the whole answer
/// After the answer: for what the client still sends. To close at once would let the answer be lost.
inline constexpr timeval control_ending_time{2, 0};

enum class control_phase {
    head,      // not whole yet
    due,       // whole: an action of the loop answers it
    waiting,   // for something new
    answering, // not all of the answer has left
    ending,    // the answer has left; a place is not taken any more
};

class control_connection;

/// The server's part. Each is called from the loop; only `ended` may free the connection.
struct control_connection_owner {
    void (*due)(control_connection &connection);
    void (*ended)(control_connection &connection);
};

class control_connection {
  public:
    /// Takes a socket that does not block. The base is borrowed.
    control_connection(event_base *base, unique_fd socket, const control_connection_owner &owner);

    [[nodiscard]] control_phase phase() const
    {
        return phase_;
    }

    /// The head, while the connection is due or waits.
    [[nodiscard]] const std::string &head() const
    {
        return text_;
    }

    [[nodiscard]] bool has_waited() const
    {
        return has_waited_;
    }

    /// True while it waits for a number above a lower one.
    [[nodiscard]] bool waits_for(std::uint64_t number) const
    {
        return phase_ == control_phase::waiting && number > above_;
    }

    /// It is due when the time is over, or when become_due is called before.
    void wait(std::uint64_t above, const timeval &time);
    void become_due();

    /// True when nobody is there any more to take the answer. A client that had said all before it went
    /// is seen by nothing else.
    [[nodiscard]] bool is_left() const;

    /// Sends the answer and ends. It may have ended, and be freed, when this returns.
    void answer(std::string text);

  private:
    static void on_readable(evutil_socket_t fd, short events, void *self) noexcept;
    static void on_writable(evutil_socket_t fd, short events, void *self) noexcept;
    static void on_time_up(evutil_socket_t fd, short events, void *self) noexcept;

    void set_timer(const timeval &time);
    void read_head(const char *bytes, std::size_t size);
    void client_has_said_all();
    void has_sent_all();
    void send();

    control_connection_owner owner_;
    control_phase phase_ = control_phase::head;
    std::string text_; // the head, then the answer
    std::size_t sent_ = 0;
    bool has_waited_ = false;
    bool has_said_all_ = false; // the client
    std::uint64_t above_ = 0;   // what it waits for has a higher number
    unique_fd socket_;
    event_ptr readable_;
    event_ptr writable_;
    event_ptr timer_;
};
