#include "https_load_connection.h"

#include <netinet/tcp.h>
#include <openssl/err.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>

namespace {

bool begins_with(std::string_view text, std::string_view begin)
{
    return text.size() >= begin.size() && strncasecmp(text.data(), begin.data(), begin.size()) == 0;
}

/// The text behind "Name:" in a head, empty when the header is not there.
std::string_view header_value(std::string_view head, std::string_view name)
{
    std::size_t at = 0;
    while ((at = head.find("\r\n", at)) != std::string_view::npos) {
        at += 2;
        const std::string_view line = head.substr(at, head.find("\r\n", at) - at);
        if (line.size() > name.size() && line[name.size()] == ':' && begins_with(line, name)) {
            std::string_view value = line.substr(name.size() + 1);
            value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
            return value;
        }
    }
    return {};
}

template <typename T>
T number_or_zero(std::string_view text)
{
    T value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

/// A socket that comes from the given address, if any, and sends at once.
unique_fd make_socket(const load_options &options, unsigned number)
{
    unique_fd made{socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    const int on = 1;
    setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!options.sources.empty()) {
        // The port is chosen at connect, where all four parts of the address are known.
        setsockopt(made.get(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
        sockaddr_in from{};
        from.sin_family = AF_INET;
        from.sin_addr = options.sources[number % options.sources.size()];
        if (bind(made.get(), reinterpret_cast<const sockaddr *>(&from), sizeof from) != 0) {
            made.reset();
        }
    }
    return made;
}

} // namespace

load_connection::load_connection(SSL_CTX *context, const load_options *options, unsigned number)
    : context_{context}, options_{options}, number_{number}
{
}

load_progress load_connection::open(SSL_SESSION *session)
{
    close();
    opened_at_ = load_clock::now();
    socket_ = make_socket(*options_, number_);
    if (!socket_) {
        return load_progress::failed;
    }
    const auto *const server = reinterpret_cast<const sockaddr *>(&options_->server);
    if (connect(socket_.get(), server, sizeof options_->server) != 0 && errno != EINPROGRESS) {
        return load_progress::failed;
    }
    tls_.reset(SSL_new(context_));
    SSL_set_fd(tls_.get(), socket_.get());
    SSL_set_connect_state(tls_.get());
    offered_session_ = session != nullptr;
    if (offered_session_) {
        SSL_set_session(tls_.get(), session);
    }
    return load_progress::wants_write;
}

load_progress load_connection::advance()
{
    ERR_clear_error();
    if (!connected_) {
        return shake_hands();
    }
    if (request_ == nullptr) {
        return load_progress::ready;
    }
    return sent_ < request_->size() ? send_rest() : receive();
}

load_progress load_connection::begin_request(const std::string *request)
{
    request_ = request;
    sent_ = 0;
    answer_.clear();
    answer_size_ = 0;
    asked_at_ = load_clock::now();
    return advance();
}

void load_connection::close()
{
    if (tls_ != nullptr && connected_) {
        // Said, not waited for: a session is only kept when the connection ended in order.
        SSL_shutdown(tls_.get());
    }
    tls_.reset();
    socket_.reset();
    connected_ = false;
    request_ = nullptr;
}

load_progress load_connection::wanted(int result) const
{
    switch (SSL_get_error(tls_.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return load_progress::wants_read;
    case SSL_ERROR_WANT_WRITE:
        return load_progress::wants_write;
    case SSL_ERROR_ZERO_RETURN:
        return load_progress::closed;
    default:
        return load_progress::failed;
    }
}

load_progress load_connection::shake_hands()
{
    const int result = SSL_do_handshake(tls_.get());
    if (result != 1) {
        return wanted(result);
    }
    connected_ = true;
    return load_progress::ready;
}

load_progress load_connection::send_rest()
{
    while (sent_ < request_->size()) {
        std::size_t taken = 0;
        const int result =
            SSL_write_ex(tls_.get(), request_->data() + sent_, request_->size() - sent_, &taken);
        if (result != 1) {
            return wanted(result);
        }
        sent_ += taken;
    }
    return load_progress::wants_read;
}

bool load_connection::read_head()
{
    const std::size_t end = answer_.find("\r\n\r\n");
    if (end == std::string::npos) {
        return false;
    }
    const std::string_view head = std::string_view{answer_}.substr(0, end);
    const std::size_t blank = std::min(head.find(' '), head.size() - 1);
    status_ = number_or_zero<int>(head.substr(blank + 1));
    answer_size_ = end + 4 + number_or_zero<std::size_t>(header_value(head, "Content-Length"));
    ends_after_answer_ = begins_with(header_value(head, "Connection"), "close");
    return true;
}

load_progress load_connection::receive()
{
    std::array<char, 16384> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    while (true) {
        std::size_t got = 0;
        const int result = SSL_read_ex(tls_.get(), bytes.data(), bytes.size(), &got);
        if (result != 1) {
            return wanted(result);
        }
        answer_.append(bytes.data(), got);
        if ((answer_size_ != 0 || read_head()) && answer_.size() >= answer_size_) {
            request_ = nullptr;
            return load_progress::answered;
        }
    }
}
