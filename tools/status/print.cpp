#include "tools/status/print.h"

#include <array>
#include <cstdio>

#include "tools/explain/names.h"
#include "tools/explain/story.h"
#include "tools/status/problems.h"
#include "tools/status/standards.h"
#include "tools/terminal/columns.h"
#include "tools/terminal/text.h"
#include "tools/terminal/times.h"

namespace {

using row = std::vector<std::string>;
using rows = std::vector<row>;

constexpr std::size_t indent = 2;

std::string shown(const std::string &text)
{
    return velmctl_text_for_terminal(text);
}

std::string number(std::int64_t value)
{
    return std::to_string(value);
}

class status_printer {
  public:
    status_printer(const control_status &status, const control_rounds *rounds,
                   const velmctl_paint &paint)
        : status_{status}, paint_{paint}, last_{rounds == nullptr || rounds->rounds.empty()
                                                    ? nullptr
                                                    : &rounds->rounds.front()}
    {
    }

    [[nodiscard]] std::string print() const
    {
        return headline() + '\n' + velmctl_columns(overview(), indent) + files() + phones() +
               settings() + problems();
    }

  private:
    [[nodiscard]] std::string title(const std::string &text) const
    {
        return '\n' + paint_(velmctl_colour::bold, text) + '\n';
    }

    [[nodiscard]] std::string time(control_moment moment) const
    {
        return velmctl_time_of(moment, status_.now);
    }

    [[nodiscard]] std::string off_unless(bool listening, std::int64_t port) const
    {
        if (port == 0) {
            return "off";
        }
        return "port " + number(port) +
               (listening ? "" : ", " + paint_(velmctl_colour::red, "does not listen"));
    }

    [[nodiscard]] static std::string taken(const control_connections &connections)
    {
        return number(connections.now) + " of " + number(connections.limit) + " connections, " +
               number(connections.most) + " at most";
    }

    [[nodiscard]] std::string headline() const
    {
        const control_daemon &daemon = status_.daemon;
        return paint_(velmctl_colour::bold, "velmd " + shown(daemon.version)) + " is process " +
               number(daemon.pid) + ", since " + velmctl_date_of(daemon.started) + " (" +
               velmctl_duration_of(std::chrono::seconds{daemon.uptime_s}) + "), " +
               velmctl_count_of(daemon.reloads, "reload", "reloads") + '\n';
    }

    [[nodiscard]] std::string lan() const
    {
        const control_lan &lan = status_.lan;
        std::string out = shown(lan.interface) + ", " +
                          (lan.address.has_value() ? shown(*lan.address)
                                                   : paint_(velmctl_colour::red, "no address"));
        if (lan.since.has_value()) {
            out += " since " + time(*lan.since);
        }
        return out + ", " + velmctl_count_of(lan.moves, "move", "moves");
    }

    [[nodiscard]] std::string discovery() const
    {
        const control_discovery &discovery = status_.discovery;
        return off_unless(discovery.listening, discovery.port) + ", " +
               velmctl_count_of(discovery.searches, "search, ", "searches, ") +
               number(discovery.answered) + " answered";
    }

    [[nodiscard]] std::string local_clients() const
    {
        const control_local_clients &clients = status_.local_clients;
        return shown(clients.socket) +
               (clients.listening ? "" : ", " + paint_(velmctl_colour::red, "does not listen")) +
               ", " + taken(clients.connections) + ", " +
               velmctl_count_of(clients.open_requests, "open request", "open requests");
    }

    [[nodiscard]] std::string certificate() const
    {
        if (!status_.certificate.has_value()) {
            return "none";
        }
        const control_certificate &certificate = *status_.certificate;
        const auto left =
            std::chrono::floor<std::chrono::seconds>(certificate.not_after - status_.now);
        const bool is_over = left.count() < 0;
        constexpr std::chrono::hours soon{14 * 24};
        const std::string rest = is_over ? "expired" : velmctl_duration_of(left) + " left";
        const velmctl_colour colour = is_over ? velmctl_colour::red : velmctl_colour::yellow;
        return shown(certificate.subject) + ", until " + velmctl_date_of(certificate.not_after) +
               " (" + (left < soon ? paint_(colour, rest) : rest) + ')';
    }

    [[nodiscard]] std::string name_of(const std::string &device_id) const
    {
        for (const control_pairing &pairing : status_.pairings) {
            if (pairing.device_id == device_id && !pairing.name.empty()) {
                return shown(pairing.name);
            }
        }
        return device_id.empty() ? "a phone" : "device " + shown(device_id);
    }

    [[nodiscard]] std::string last_report() const
    {
        if (!status_.last_report.has_value()) {
            return "none";
        }
        const control_last_report &report = *status_.last_report;
        std::string out =
            time(report.at) + " from " + name_of(report.device_id) + " at " + shown(report.address);
        if (report.accuracy_m.has_value()) {
            std::array<char, 64> text{};
            std::snprintf(text.data(), text.size(), ", accurate to %g m", *report.accuracy_m);
            out += text.data();
        }
        return out;
    }

    [[nodiscard]] std::string last_round() const
    {
        const std::string state = last_->cause.has_value() ? "no location" : shown(last_->state);
        return time(last_->asked.at) + ", " +
               (last_->cause.has_value() ? paint_(velmctl_colour::yellow, state) : state);
    }

    [[nodiscard]] rows overview() const
    {
        const std::string clock =
            status_.clock.plausible ? "plausible" : paint_(velmctl_colour::red, "wrong");
        rows out{
            {"configuration", shown(status_.daemon.configuration_file.value_or("no file"))},
            {"LAN", lan()},
            {"HTTPS", off_unless(status_.https.listening, status_.https.port) + ", " +
                          taken(status_.https.connections)},
            {"discovery", discovery()},
            {"local clients", local_clients()},
            {"certificate", certificate()},
        };
        if (status_.certificate.has_value()) {
            out.push_back({"fingerprint", "SHA-256 " + shown(status_.certificate->sha256)});
        }
        out.push_back({"clock", clock});
        out.push_back({"last report", last_report()});
        if (last_ != nullptr) {
            out.push_back({"last round", last_round()});
        }
        return out;
    }

    [[nodiscard]] std::string state_of(const control_file &file) const
    {
        const std::string why = shown(file.why.value_or(""));
        if (velmctl_status_is_file_wrong(status_, file)) {
            return paint_(velmctl_colour::red, "cannot be used: " + why);
        }
        if (file.usable && file.read.has_value()) {
            return "read at " + time(*file.read);
        }
        return paint_(velmctl_colour::faint, file.read.has_value() ? "not needed: " + why : why);
    }

    [[nodiscard]] std::string files() const
    {
        rows out;
        for (const control_file &file : status_.files) {
            out.push_back({shown(file.key), shown(file.path), state_of(file)});
        }
        return out.empty() ? "" : title("Files") + velmctl_columns(out, indent);
    }

    [[nodiscard]] std::string last_push(const control_pairing &pairing) const
    {
        if (!pairing.last_push.has_value()) {
            return "never";
        }
        return time(*pairing.last_push) + (pairing.last_push_status.has_value()
                                               ? " (" + number(*pairing.last_push_status) + ')'
                                               : "");
    }

    [[nodiscard]] std::string last_visit(const control_pairing &pairing) const
    {
        if (!pairing.last_visit.has_value()) {
            return "never";
        }
        const bool was_refused = !pairing.last_visit_accepted.value_or(true);
        return time(*pairing.last_visit) +
               (was_refused ? ", " + paint_(velmctl_colour::yellow, "refused") : "");
    }

    [[nodiscard]] std::string phones() const
    {
        const auto count = static_cast<std::int64_t>(status_.pairings.size());
        std::string head =
            title("Phones: " + number(count) + " of " + number(status_.pairings_limit) + " paired");
        if (status_.pairings.empty()) {
            return head;
        }
        rows out{{"slot", "name", "model", "type", "last push", "last visit"}};
        for (const control_pairing &pairing : status_.pairings) {
            out.push_back({number(pairing.slot), shown(pairing.name), shown(pairing.model),
                           shown(pairing.device_type), last_push(pairing), last_visit(pairing)});
        }
        return head + velmctl_columns(out, indent);
    }

    [[nodiscard]] static std::string source_of(const control_setting &setting)
    {
        return (setting.source == "nvram" ? "from " : "from the ") + shown(setting.source);
    }

    [[nodiscard]] std::string settings() const
    {
        rows out;
        for (const control_setting &setting : status_.settings) {
            if (setting.source != "default" && !velmctl_setting_is_standard(setting)) {
                out.push_back({shown(setting.key), shown(setting.value),
                               paint_(velmctl_colour::faint, source_of(setting))});
            }
        }
        return out.empty() ? ""
                           : title("Settings that are not defaults") + velmctl_columns(out, indent);
    }

    [[nodiscard]] static std::string listed(const std::string &head,
                                            const std::vector<std::string> &sentences)
    {
        std::string out = sentences.empty() ? "" : '\n' + head + '\n';
        for (const std::string &sentence : sentences) {
            out += "  " + sentence + '\n';
        }
        return out;
    }

    /// Why the last round brought no location; empty when it did, or is open.
    [[nodiscard]] std::string failed_round() const
    {
        if (last_ == nullptr || !last_->cause.has_value()) {
            return "";
        }
        const explain_names names{status_.pairings};
        return listed(paint_(velmctl_colour::yellow, "The last round brought no location:"),
                      {explain_round(*last_, status_.now, names).cause,
                       "velmctl explain tells what happened."});
    }

    [[nodiscard]] std::string problems() const
    {
        const std::string wrong =
            listed(paint_(velmctl_colour::red, "Wrong:"), velmctl_status_problems(status_)) +
            failed_round();
        const std::string good = '\n' + paint_(velmctl_colour::green, "Nothing is wrong.") + '\n';
        return (wrong.empty() ? good : wrong) +
               listed(paint_(velmctl_colour::yellow, "Warning:"), velmctl_status_warnings(status_));
    }

    const control_status &status_;
    const velmctl_paint &paint_;
    const control_round *last_; // null: none, or not known
};

} // namespace

std::string velmctl_status_to_text(const control_status &status, const control_rounds *rounds,
                                   const velmctl_paint &paint)
{
    return status_printer{status, rounds, paint}.print();
}
