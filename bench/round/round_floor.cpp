#include <crypt.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include "common/bare_token.h"
#include "file/common_file.h"
#include "floor.h"

/// What the arithmetic and the system calls of a round cost without a daemon around them.

namespace {

constexpr char usage[] =
    "usage: velm-round-floor DIR LAN-HOST CLOUD-HOST OWN-CORE PEER-CORE\n"
    "For each line of standard input does every piece of a round once and prints one JSON object:\n"
    "microseconds of processor time, by piece. A core of -1 is any.\n"
    "\n"
    "Files of DIR: server_cert.pem, server_key.pem, cloud_cert.pem, cloud_key.pem, cloud_ca.pem,\n"
    "passwd, password, hash (of crypt), token.jwe, dec.jwk, ver.jwk.\n";

constexpr int phone_exchanges = 2; // a challenge and a location
constexpr int cloud_exchanges = 1;

evp_pkey_ptr p256_generate()
{
    const evp_pkey_ctx_ptr context{EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr)};
    EVP_PKEY *made = nullptr;
    if (EVP_PKEY_keygen_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context.get(), NID_X9_62_prime256v1) != 1 ||
        EVP_PKEY_keygen(context.get(), &made) != 1) {
        round_floor_fail("cannot make a key");
    }
    return evp_pkey_ptr{made};
}

/// An ECDSA key on P-256, and a message that it has signed.
class signed_message {
  public:
    signed_message() : key_{p256_generate()}
    {
        sign();
    }
    void sign()
    {
        const evp_md_ctx_ptr context{EVP_MD_CTX_new()};
        std::size_t length = signature_.size();
        require(EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) ==
                    1 &&
                EVP_DigestSign(context.get(), signature_.data(), &length, message_.data(),
                               message_.size()) == 1);
        length_ = length;
    }
    void verify() const
    {
        const evp_md_ctx_ptr context{EVP_MD_CTX_new()};
        require(EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) ==
                    1 &&
                EVP_DigestVerify(context.get(), signature_.data(), length_, message_.data(),
                                 message_.size()) == 1);
    }

  private:
    static void require(bool done)
    {
        if (!done) {
            round_floor_fail("cannot sign or verify");
        }
    }
    evp_pkey_ptr key_;
    std::array<unsigned char, 69> message_{};
    std::array<unsigned char, 80> signature_{};
    std::size_t length_ = 0;
};

std::string text_of(const std::string &path)
{
    auto content = read_binary_file(path.c_str());
    if (!content.has_value() || content->empty()) {
        round_floor_fail("cannot read " + path);
    }
    content->erase(content->find_last_not_of("\r\n") + 1);
    return *std::move(content);
}

void hash_password(const std::string &password, const std::string &hash)
{
    const char *const made = crypt(password.c_str(), hash.c_str());
    if (made == nullptr || hash != made) {
        round_floor_fail("the password has another hash");
    }
}

struct piece {
    const char *name;
    double cpu_us;
};

void print(const std::vector<piece> &pieces)
{
    std::printf("{");
    const char *between = "";
    for (const piece &one : pieces) {
        std::printf("%s\"%s\": %.3f", between, one.name, one.cpu_us);
        between = ", ";
    }
    std::printf("}\n");
    std::fflush(stdout);
}

class floor_round {
  public:
    floor_round(const std::string &at, const char *lan_host, const char *cloud_host, int own_core,
                int peer_core)
        : calls_{at + "/passwd", own_core, peer_core}, password_{text_of(at + "/password")},
          hash_{text_of(at + "/hash")}, token_{text_of(at + "/token.jwe"), text_of(at + "/dec.jwk"),
                                               text_of(at + "/ver.jwk")},
          phone_{round_tls_server(at + "/server_cert.pem", at + "/server_key.pem", false),
                 round_tls_client(at + "/server_cert.pem"), lan_host, phone_exchanges,
                 round_tls_daemon::server},
          cloud_{round_tls_server(at + "/cloud_cert.pem", at + "/cloud_key.pem", true),
                 round_tls_client(at + "/cloud_ca.pem"), cloud_host, cloud_exchanges,
                 round_tls_daemon::client}
    {
    }
    std::vector<piece> run()
    {
        double asked = 0, served = 0, hashes = 0, check = 0, token = 0, computed = 0;
        const auto compute = [&computed](const std::function<void()> &work) {
            const double spent = round_floor_cpu_us(work);
            computed += spent;
            return spent;
        };
        const auto hash = [this] {
            round_floor_counted([this] { hash_password(password_, hash_); });
        };
        const double all = round_floor_cpu_us([&] {
            calls_.run(
                {.push = [&] { compute([&] { asked = cloud_.connect().client_us; }); },
                 .greet_phone = [&] { compute([&] { served = phone_.connect().server_us; }); },
                 .challenge = [&] { hashes += compute(hash); },
                 .location =
                     [&] {
                         check = compute(
                             [this] { round_floor_counted_check([this] { signed_.verify(); }); });
                         token = compute(
                             [this] { round_floor_counted_token([this] { open_token(); }); });
                         hashes += compute(hash);
                     }});
        });
        const double signing = round_floor_cpu_us([this] { signed_.sign(); });
        return {{"hashes_us", hashes},
                {"server_connection_us", served},
                {"client_connection_us", asked},
                {"signing_us", signing},
                {"check_us", check},
                {"token_us", token},
                {"calls_us", all - computed}};
    }

  private:
    void open_token()
    {
        if (!token_.open()) {
            round_floor_fail("cannot open the token");
        }
    }
    round_calls calls_; // first: it forks
    std::string password_, hash_;
    signed_message signed_;
    bare_token token_;
    round_tls phone_, cloud_;
};

} // namespace

// Each comes back to itself, since a jump in place of the call would hide where it ends, and differs from the
// others, since the compiler makes equal functions one.
extern "C" {
[[gnu::noinline]] void round_floor_counted(const std::function<void()> &work)
{
    work();
    asm volatile("" : : "i"(1));
}
[[gnu::noinline]] void round_floor_counted_check(const std::function<void()> &work)
{
    work();
    asm volatile("" : : "i"(2));
}
[[gnu::noinline]] void round_floor_counted_token(const std::function<void()> &work)
{
    work();
    asm volatile("" : : "i"(3));
}
}

void round_floor_fail(const std::string &why)
{
    std::fprintf(stderr, "velm-round-floor: %s\n", why.c_str());
    std::exit(1);
}

double round_floor_cpu_us(const std::function<void()> &work)
{
    timespec begin{};
    timespec end{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &begin);
    work();
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &end);
    return static_cast<double>(end.tv_sec - begin.tv_sec) * 1e6 +
           static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e3;
}

int main(int argc, char **argv)
{
    constexpr int arguments = 6;
    if (argc != arguments) {
        std::fputs(usage, stderr);
        return 1;
    }
    floor_round round{argv[1], argv[2], argv[3], std::atoi(argv[4]), std::atoi(argv[5])};
    for (std::string line; std::getline(std::cin, line);) {
        print(round.run());
    }
    return 0;
}
