// velm-https-load: keeps an HTTPS server busy, or a server's idle connections open, and prints what
// it saw as one line of JSON. One thread, one epoll loop.

#include <poll.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include "https_load_connection.h"
#include "https_load_options.h"
#include "https_load_result.h"

namespace {

using namespace std::chrono_literals;

using ssl_session_ptr = handle<SSL_SESSION, SSL_SESSION_free>;

constexpr auto patience = 10s; // longest time without any answer
constexpr int max_failures_in_a_row = 100;

struct load_run {
    const load_options *options = nullptr;
    ssl_ctx_ptr context;
    unique_fd epoll;
    std::string repeated_request;
    std::vector<std::string> requests; // each sent once
    std::size_t next_request = 0;
    std::deque<load_connection> connections;
    std::vector<ssl_session_ptr> sessions; // the newest of each connection
    std::vector<std::uint32_t> waits_for;  // epoll's flags for each connection
    std::size_t open = 0;                  // connections with something left to do
    int failures_in_a_row = 0;
    load_clock::time_point last_answer;
    load_clock::time_point end;
    load_result result;
};

load_run *running = nullptr; // of the session callback, which OpenSSL gives no argument

volatile std::sig_atomic_t was_ended = 0; // by SIGTERM: what it saw until then is printed

/// TLS 1.3 tickets come with the first answer; each takes the place of the one before.
int keep_session(SSL *tls, SSL_SESSION *session) noexcept
{
    for (std::size_t i = 0; i < running->connections.size(); ++i) {
        if (running->connections[i].tls() == tls) {
            running->sessions[i].reset(session);
            return 1;
        }
    }
    return 0;
}

bool make_context(load_run *run)
{
    run->context.reset(SSL_CTX_new(TLS_client_method()));
    SSL_CTX *const context = run->context.get();
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE);
    if (SSL_CTX_load_verify_locations(context, run->options->authority_path.c_str(), nullptr) !=
        1) {
        std::fprintf(stderr, "cannot read %s\n", run->options->authority_path.c_str());
        return false;
    }
    if (run->options->tls_version != 0) {
        SSL_CTX_set_min_proto_version(context, run->options->tls_version);
        SSL_CTX_set_max_proto_version(context, run->options->tls_version);
    }
    if (run->options->mode == load_mode::again) {
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
        SSL_CTX_sess_set_new_cb(context, keep_session);
    }
    return true;
}

/// The file holds each request behind its length and a line feed.
bool read_requests(load_run *run)
{
    std::ifstream file{run->options->requests_path, std::ios::binary};
    std::string length;
    while (std::getline(file, length)) {
        std::string request(std::strtoul(length.c_str(), nullptr, 10), '\0');
        if (!file.read(request.data(), static_cast<std::streamsize>(request.size()))) {
            std::fprintf(stderr, "%s is cut off\n", run->options->requests_path.c_str());
            return false;
        }
        run->requests.push_back(std::move(request));
    }
    return !run->requests.empty();
}

bool prepare(load_run *run)
{
    run->epoll.reset(epoll_create1(EPOLL_CLOEXEC));
    run->repeated_request =
        "GET " + run->options->path + " HTTP/1.1\r\nHost: velm\r\nUser-Agent: AFC/1.0\r\n\r\n";
    for (unsigned i = 0; i < run->options->connections; ++i) {
        run->connections.emplace_back(run->context.get(), run->options, i);
    }
    run->sessions.resize(run->connections.size());
    run->waits_for.resize(run->connections.size());
    if (run->options->mode == load_mode::idle) {
        run->requests.assign(run->connections.size(), run->repeated_request);
    }
    return run->options->requests_path.empty() || read_requests(run);
}

/// Until the time is over or somebody ends it; requests of a file that are not repeated, until all are
/// sent.
bool has_more(const load_run *run)
{
    if (run->requests.empty() || run->options->repeats) {
        return was_ended == 0 && load_clock::now() < run->end;
    }
    return run->next_request < run->requests.size();
}

/// Null when there is nothing more to ask.
const std::string *take_request(load_run *run)
{
    if (!has_more(run)) {
        return nullptr;
    }
    return run->requests.empty() ? &run->repeated_request
                                 : &run->requests[run->next_request++ % run->requests.size()];
}

void wait_for(load_run *run, std::size_t index, std::uint32_t events)
{
    const std::uint32_t before = std::exchange(run->waits_for[index], events);
    if (before == events) {
        return;
    }
    epoll_event event{};
    event.events = events;
    event.data.u64 = index;
    epoll_ctl(run->epoll.get(), before == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD,
              run->connections[index].descriptor(), &event);
}

load_progress open_connection(load_run *run, std::size_t index)
{
    run->waits_for[index] = 0; // a closed descriptor has left epoll by itself
    ++run->result.connections;
    return run->connections[index].open(run->sessions[index].get());
}

bool keeps_connections(const load_run *run)
{
    return run->options->mode == load_mode::kept || run->options->mode == load_mode::idle;
}

load_progress after_answer(load_run *run, std::size_t index)
{
    load_connection &connection = run->connections[index];
    const auto began = keeps_connections(run) ? connection.asked_at() : connection.opened_at();
    run->last_answer = load_clock::now();
    run->result.add_answer(connection.status(), run->last_answer - began);
    run->failures_in_a_row = 0;
    if (keeps_connections(run) && !connection.ends_after_answer()) {
        return load_progress::ready;
    }
    connection.close();
    return load_progress::closed;
}

/// A request that was under way counts as failed with its connection.
bool may_open_again(load_run *run, load_progress progress)
{
    if (progress == load_progress::failed) {
        ++run->result.failures;
        ++run->failures_in_a_row;
    }
    return has_more(run) && run->failures_in_a_row < max_failures_in_a_row;
}

void count_resumed(load_result *result, const load_connection &connection)
{
    result->offered += connection.offered_session();
    result->resumed += SSL_session_reused(connection.tls()) == 1;
}

/// Goes on with a connection until it has to wait; false when it has nothing left to do.
bool drive(load_run *run, std::size_t index, load_progress progress)
{
    load_connection &connection = run->connections[index];
    while (true) {
        switch (progress) {
        case load_progress::wants_read:
            wait_for(run, index, EPOLLIN);
            return true;
        case load_progress::wants_write:
            wait_for(run, index, EPOLLOUT);
            return true;
        case load_progress::ready: {
            const std::string *const request = take_request(run);
            if (request == nullptr) {
                return false;
            }
            progress = connection.begin_request(request);
            break;
        }
        case load_progress::answered:
            count_resumed(&run->result, connection);
            progress = after_answer(run, index);
            break;
        case load_progress::closed:
        case load_progress::failed:
            if (!may_open_again(run, progress)) {
                return false;
            }
            progress = open_connection(run, index);
            break;
        }
    }
}

/// What else may come on a connection, such as a ticket, wakes nobody any more.
void retire(load_run *run, std::size_t index)
{
    epoll_ctl(run->epoll.get(), EPOLL_CTL_DEL, run->connections[index].descriptor(), nullptr);
    --run->open;
}

/// Serves the connections until all have nothing left to do; false when the server fell silent.
bool turn_until_done(load_run *run)
{
    std::array<epoll_event, 64> events{};
    run->last_answer = load_clock::now();
    while (run->open > 0) {
        const int count = epoll_wait(run->epoll.get(), events.data(), events.size(), 100);
        for (int i = 0; i < count; ++i) {
            const std::size_t index = events[static_cast<std::size_t>(i)].data.u64;
            if (!drive(run, index, run->connections[index].advance())) {
                retire(run, index);
            }
        }
        if (load_clock::now() - run->last_answer > patience) {
            std::fprintf(stderr, "no answer any more\n");
            return false;
        }
    }
    return true;
}

/// Shakes hands on every connection before the clock starts.
bool connect_all(load_run *run)
{
    for (std::size_t i = 0; i < run->connections.size(); ++i) {
        load_progress progress = open_connection(run, i);
        while (progress == load_progress::wants_read || progress == load_progress::wants_write) {
            pollfd waiting{
                run->connections[i].descriptor(),
                static_cast<short>(progress == load_progress::wants_read ? POLLIN : POLLOUT), 0};
            if (poll(&waiting, 1, 10000) != 1) {
                break;
            }
            progress = run->connections[i].advance();
        }
        if (progress != load_progress::ready) {
            std::fprintf(stderr, "connection %zu cannot be made\n", i);
            return false;
        }
    }
    return true;
}

bool run_load(load_run *run)
{
    if (keeps_connections(run) && !connect_all(run)) {
        return false;
    }
    const auto begin = load_clock::now();
    run->end = begin + std::chrono::duration_cast<load_clock::duration>(
                           std::chrono::duration<double>(run->options->seconds));
    for (std::size_t i = 0; i < run->connections.size(); ++i) {
        run->open +=
            drive(run, i, keeps_connections(run) ? load_progress::ready : load_progress::closed);
    }
    const bool good = turn_until_done(run);
    run->result.seconds = std::chrono::duration<double>(load_clock::now() - begin).count();
    return good;
}

/// One request on each connection, then nothing until standard input ends.
bool run_idle(load_run *run)
{
    if (!run_load(run)) {
        return false;
    }
    load_result_print(run->result);
    while (std::getchar() != EOF) {
    }
    return true;
}

/// Asks again and again, until the 200 or the end of the patience; seconds since `begin`.
double seconds_to_first_answer(load_run *run, load_clock::time_point begin)
{
    while (load_clock::now() - begin < patience) {
        load_connection &connection = run->connections.front();
        load_progress progress = open_connection(run, 0);
        while (progress == load_progress::wants_read || progress == load_progress::wants_write ||
               progress == load_progress::ready) {
            if (progress == load_progress::ready) {
                progress = connection.begin_request(&run->repeated_request);
                continue;
            }
            pollfd waiting{
                connection.descriptor(),
                static_cast<short>(progress == load_progress::wants_read ? POLLIN : POLLOUT), 0};
            poll(&waiting, 1, 1000);
            progress = connection.advance();
        }
        if (progress == load_progress::answered && connection.status() == 200) {
            return std::chrono::duration<double>(load_clock::now() - begin).count();
        }
        usleep(100);
    }
    return -1;
}

pid_t start_command(const load_run *run)
{
    const pid_t child = fork();
    if (child == 0) {
        std::vector<char *> arguments;
        for (const char *word : run->options->command) {
            arguments.push_back(const_cast<char *>(word));
        }
        execvp(arguments.front(), arguments.data());
        _exit(127);
    }
    return child;
}

bool run_first(load_run *run)
{
    const auto begin = load_clock::now();
    const pid_t child = start_command(run);
    const double seconds = child < 0 ? -1 : seconds_to_first_answer(run, begin);
    if (child > 0) {
        kill(child, SIGTERM);
        waitpid(child, nullptr, 0);
    }
    std::printf("{\"first_answer_s\": %.6f}\n", seconds);
    return seconds >= 0;
}

bool run_ended(const load_run *run)
{
    const auto begin = load_clock::now();
    const pid_t child = start_command(run);
    int status = -1;
    const bool good = child > 0 && waitpid(child, &status, 0) == child && status == 0;
    const double seconds = std::chrono::duration<double>(load_clock::now() - begin).count();
    std::printf("{\"ended_s\": %.6f}\n", seconds);
    return good;
}

bool run_mode(load_run *run)
{
    switch (run->options->mode) {
    case load_mode::first:
        return run_first(run);
    case load_mode::idle:
        return run_idle(run);
    case load_mode::kept:
    case load_mode::fresh:
    case load_mode::again:
    case load_mode::ended: // has no server
        break;
    }
    const bool good = run_load(run);
    load_result_print(run->result);
    return good;
}

} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    const auto options = load_options_parse(argc, argv);
    if (!options) {
        return 2;
    }
    load_run run;
    run.options = &*options;
    running = &run;
    if (options->repeats) {
        std::signal(SIGTERM, [](int) noexcept { was_ended = 1; });
    }
    if (options->mode == load_mode::ended) {
        return run_ended(&run) ? 0 : 1;
    }
    return make_context(&run) && prepare(&run) && run_mode(&run) ? 0 : 1;
}
