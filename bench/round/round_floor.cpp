#include <arpa/inet.h>
#include <crypt.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <velm/location_policy.h>

#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "bare_tls.h"
#include "common/bare_token.h"
#include "file/common_file.h"

/// The floor of a round: a bare program that does what no program can leave out, with the daemon's peers.

namespace {

constexpr char usage[] =
    "usage: velm-round-floor DIR ADDRESS PORT CLOUD-ADDRESS CLOUD-HOST check|token\n"
    "Serves the local client at DIR/socket and a phone at ADDRESS:PORT, round after round.\n"
    "Believes whatever the phone says. The last word is the proof that it takes the time for:\n"
    "a P-256 signature or an integrity token.\n"
    "\n"
    "Files of DIR: server_cert.pem, server_key.pem, cloud_ca.pem, push (the whole request),\n"
    "password (that of the first account in /etc/passwd), token.jwe, dec.jwk, ver.jwk.\n";

constexpr std::uint16_t cloud_port = 443;
constexpr std::chrono::seconds push_gap{1}; // the daemon has to wait so long before a push

// The texts have the daemon's sizes.
constexpr char challenge_answer[] =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 48\r\n\r\n"
    "{\"challenge\":\"5281bd5b39dc3242c8f24ebdc0601239\"}";
constexpr char location_answer[] =
    "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nContent-Type: text/plain\r\n\r\n";

evp_pkey_ptr p256_generate()
{
    const evp_pkey_ctx_ptr context{EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr)};
    EVP_PKEY *made = nullptr;
    round_floor_require(
        EVP_PKEY_keygen_init(context.get()) == 1 &&
            EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context.get(), NID_X9_62_prime256v1) == 1 &&
            EVP_PKEY_keygen(context.get(), &made) == 1,
        "make a key");
    return evp_pkey_ptr{made};
}

/// An ECDSA key on P-256, and a message that it has signed.
class signed_message {
  public:
    signed_message() : key_{p256_generate()}
    {
        const evp_md_ctx_ptr context{EVP_MD_CTX_new()};
        round_floor_require(
            EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) == 1 &&
                EVP_DigestSign(context.get(), signature_.data(), &length_, message_.data(),
                               message_.size()) == 1,
            "sign");
    }
    [[nodiscard]] bool verify() const
    {
        const evp_md_ctx_ptr context{EVP_MD_CTX_new()};
        return EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) ==
                   1 &&
               EVP_DigestVerify(context.get(), signature_.data(), length_, message_.data(),
                                message_.size()) == 1;
    }

  private:
    evp_pkey_ptr key_;
    std::array<unsigned char, 69> message_{};
    std::array<unsigned char, 80> signature_{};
    std::size_t length_ = signature_.size();
};

std::string text_of(const std::string &path)
{
    auto content = read_binary_file(path.c_str());
    round_floor_require(content.has_value() && !content->empty(), path.c_str());
    return *std::move(content);
}

/// The number that the text begins with.
std::uint16_t number_of(std::string_view text)
{
    std::uint16_t made = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), made);
    round_floor_require(error == std::errc{}, "read a number");
    return made;
}

sockaddr_in address_of(const char *address, std::uint16_t port)
{
    sockaddr_in made{};
    made.sin_family = AF_INET;
    made.sin_port = htons(port);
    round_floor_require(inet_pton(AF_INET, address, &made.sin_addr) == 1, "read an address");
    return made;
}

unique_fd listen_on(unique_fd made, const sockaddr *address, socklen_t size)
{
    round_floor_require(bind(made.get(), address, size) == 0 && listen(made.get(), SOMAXCONN) == 0,
                        "listen");
    return made;
}

/// Connections inherit that they do not wait for more to send, as the daemon's do.
unique_fd listen_for_phones(const char *address, const char *port)
{
    unique_fd made{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    const sockaddr_in at = address_of(address, number_of(port));
    const int yes = 1;
    round_floor_require(setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) == 0 &&
                            setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes) == 0,
                        "set an option");
    return listen_on(std::move(made), reinterpret_cast<const sockaddr *>(&at), sizeof at);
}

unique_fd listen_for_clients(const std::string &path)
{
    sockaddr_un at{};
    at.sun_family = AF_UNIX;
    round_floor_require(path.size() < sizeof at.sun_path, "have so long a path");
    path.copy(at.sun_path, path.size());
    return listen_on(unique_fd{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)},
                     reinterpret_cast<const sockaddr *>(&at), sizeof at);
}

unique_fd accept_from(const unique_fd &listener)
{
    unique_fd made{accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)};
    round_floor_require(static_cast<bool>(made), "accept");
    return made;
}

/// Until the body has come that the head announces.
void read_request(bare_tls &phone)
{
    constexpr std::string_view head_end = "\r\n\r\n";
    constexpr std::string_view length_name = "Content-Length: ";
    std::string request;
    for (std::size_t whole = std::string::npos; request.size() < whole;) {
        const std::string_view piece = phone.read();
        round_floor_require(!piece.empty(), "read a request");
        request += piece;
        const std::size_t head = request.find(head_end);
        const std::size_t name = request.find(length_name);
        if (head != std::string::npos) {
            round_floor_require(name < head, "find the length of a body");
            const std::string_view rest = std::string_view{request}.substr(name);
            whole = head + head_end.size() + number_of(rest.substr(length_name.size()));
        }
    }
}

/// The round, by a single thread that does one thing after the other and sleeps in each call that has to wait.
class floor_round {
  public:
    explicit floor_round(char **words)
        : at_{words[0]}, phones_{listen_for_phones(words[1], words[2])}, cloud_{address_of(
                                                                             words[3], cloud_port)},
          cloud_host_{words[4]}, has_token_{std::strcmp(words[5], "token") == 0},
          push_{text_of(at_ + "/push")}, password_{text_of(at_ + "/password")},
          token_{text_of(at_ + "/token.jwe"), text_of(at_ + "/dec.jwk"), text_of(at_ + "/ver.jwk")},
          to_cloud_{bare_tls_client(at_ + "/cloud_ca.pem")}, to_phone_{bare_tls_server(
                                                                 at_ + "/server_cert.pem",
                                                                 at_ + "/server_key.pem")},
          clients_{listen_for_clients(at_ + "/socket")}
    {
    }
    [[noreturn]] void serve()
    {
        for (;;) {
            const unique_fd client = accept_from(clients_);
            while (is_asked(client)) {
                std::this_thread::sleep_for(push_gap);
                push();
                serve_phone(client);
            }
        }
    }

  private:
    /// The only `recv`: a watcher sees by it that no round is under way.
    static bool is_asked(const unique_fd &client)
    {
        std::array<char, 4096> packet;
        return recv(client.get(), packet.data(), packet.size(), 0) > 0;
    }
    void push()
    {
        unique_fd made{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        round_floor_require(
            ::connect(made.get(), reinterpret_cast<const sockaddr *>(&cloud_), sizeof cloud_) == 0,
            "connect to the cloud");
        bare_tls cloud{wire_, to_cloud_.get(), std::move(made)};
        cloud.connect(cloud_host_);
        cloud.write(push_);
        const std::string_view answer = cloud.read(); // it comes in one record
        round_floor_require(answer.substr(0, 12) == "HTTP/1.1 200" && answer.back() == '}', "push");
        cloud.say_end();
    }
    void serve_phone(const unique_fd &client)
    {
        bare_tls phone{wire_, to_phone_.get(), accept_from(phones_)};
        phone.accept();
        read_request(phone);
        hash_password();
        phone.write(challenge_answer);
        read_request(phone);
        hash_password();
        round_floor_require(has_token_ ? token_.open() : signed_.verify(), "check the proof");
        phone.write(location_answer);
        report(client);
        round_floor_require(phone.read().empty(), "see the phone go");
    }
    void hash_password() const
    {
        std::array<char, 4096> text;
        const unique_fd file{open("/etc/passwd", O_RDONLY | O_CLOEXEC)};
        const ssize_t length = ::read(file.get(), text.data(), text.size() - 1);
        round_floor_require(length > 0, "read the accounts");
        text[static_cast<std::size_t>(length)] = '\0';
        char *const hash = std::strchr(text.data(), ':');
        char *const end = hash != nullptr ? std::strchr(hash + 1, ':') : nullptr;
        round_floor_require(end != nullptr, "find the hash");
        *end = '\0';
        const char *const made = crypt(password_.c_str(), hash + 1);
        round_floor_require(made != nullptr && std::strcmp(made, hash + 1) == 0,
                            "hash: the password has another");
    }
    static void report(const unique_fd &client)
    {
        struct {
            velm_frame_header header{VELM_LOCATION_REPORT, sizeof(velm_location_report), 1, 0, 0};
            velm_location_report location{};
        } frame;
        round_floor_require(send(client.get(), &frame, sizeof frame, MSG_NOSIGNAL) == sizeof frame,
                            "report");
    }

    std::string at_;
    unique_fd phones_;
    sockaddr_in cloud_;
    std::string cloud_host_;
    bool has_token_;
    std::string push_, password_;
    signed_message signed_;
    bare_token token_;
    ssl_ctx_ptr to_cloud_, to_phone_;
    bare_tls_wire wire_;
    unique_fd clients_; // last: a client that can connect is served
};

} // namespace

int main(int argc, char **argv)
{
    constexpr int arguments = 7;
    if (argc != arguments) {
        std::fputs(usage, stderr);
        return 1;
    }
    (void)std::signal(SIGPIPE, SIG_IGN);
    floor_round{argv + 1}.serve();
}
