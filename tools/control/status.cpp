#include "tools/control/status.h"

namespace {

control_daemon read_daemon(const control_fields &in)
{
    control_daemon out{};
    out.version = in.text("version");
    out.pid = in.number("pid");
    out.uptime_s = in.number("uptimeSeconds");
    out.started = in.moment("started");
    out.reloads = in.number("reloads");
    out.configuration_file = in.maybe_text("configurationFile");
    return out;
}

control_setting read_setting(const control_fields &in)
{
    return {in.text("key"), in.text("value"), in.text("source")};
}

control_lan read_lan(const control_fields &in)
{
    return {in.text("interface"), in.maybe_text("address"), in.maybe_moment("since"),
            in.number("moves")};
}

control_connections read_connections(const control_fields &in)
{
    return {in.number("now"), in.number("most"), in.number("limit")};
}

control_https read_https(const control_fields &in)
{
    return {in.number("port"), in.flag("listening"), read_connections(in.object("connections"))};
}

control_discovery read_discovery(const control_fields &in)
{
    return {in.number("port"), in.flag("listening"), in.number("searches"), in.number("answered")};
}

control_local_clients read_local_clients(const control_fields &in)
{
    return {in.text("socket"), in.flag("listening"), read_connections(in.object("connections")),
            in.number("openRequests")};
}

std::optional<control_certificate> read_certificate(const std::optional<control_fields> &in)
{
    if (!in.has_value()) {
        return std::nullopt;
    }
    return control_certificate{in->text("subject"), in->text("sha256"), in->moment("notBefore"),
                               in->moment("notAfter")};
}

control_file read_file(const control_fields &in)
{
    return {in.text("key"), in.text("path"), in.maybe_moment("read"), in.flag("usable"),
            in.maybe_text("why")};
}

control_pairing read_pairing(const control_fields &in)
{
    control_pairing out{};
    out.slot = in.number("slot");
    out.device_id = in.maybe_text("deviceId").value_or("");
    out.name = in.maybe_text("name").value_or("");
    out.model = in.maybe_text("model").value_or("");
    out.device_type = in.maybe_text("deviceType").value_or("");
    out.last_push = in.maybe_moment("lastPush");
    out.last_push_status = in.maybe_number("lastPushStatus");
    out.last_visit = in.maybe_moment("lastVisit");
    out.last_visit_accepted = in.maybe_flag("lastVisitAccepted");
    return out;
}

std::optional<control_last_report> read_last_report(const std::optional<control_fields> &in)
{
    if (!in.has_value()) {
        return std::nullopt;
    }
    return control_last_report{in->moment("at"), in->maybe_text("deviceId").value_or(""),
                               in->maybe_text("address").value_or(""),
                               in->maybe_measure("accuracyMeters")};
}

control_clock read_clock(const control_fields &in)
{
    return {in.flag("plausible"), in.maybe_text("why")};
}

} // namespace

control_status control_status_read(const cJSON *document, std::string &problem)
{
    const control_fields in{document, "", problem};
    control_status out{};
    out.now = in.moment("now");
    out.daemon = read_daemon(in.object("daemon"));
    out.settings = in.list("settings", read_setting);
    out.unknown_keys = in.later_texts("unknownKeys");
    out.lan = read_lan(in.object("lan"));
    out.https = read_https(in.object("https"));
    out.discovery = read_discovery(in.object("discovery"));
    out.local_clients = read_local_clients(in.object("localClients"));
    out.certificate = read_certificate(in.maybe_object("certificate"));
    out.files = in.list("files", read_file);
    out.clock = read_clock(in.object("clock"));
    out.pairings = in.list("pairings", read_pairing);
    out.pairings_limit = in.number("pairingsLimit");
    out.last_report = read_last_report(in.maybe_object("lastReport"));
    return out;
}
