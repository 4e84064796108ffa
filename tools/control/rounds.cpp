#include "tools/control/rounds.h"

namespace {

control_asked read_asked(const control_fields &in)
{
    return {in.moment("at"), in.number("pid"), in.number("uid"), in.number("requestId"),
            in.number("timeoutSeconds")};
}

control_push_run read_run(const control_fields &in)
{
    return {in.flag("begun"), in.maybe_text("why"), in.maybe_text("whyText")};
}

control_push read_push(const control_fields &in)
{
    control_push out{};
    out.slot = in.number("slot");
    out.name = in.maybe_text("name").value_or("");
    out.model = in.maybe_text("model").value_or("");
    out.at = in.moment("at");
    out.milliseconds = in.maybe_number("milliseconds");
    out.status = in.maybe_number("status");
    out.error = in.maybe_text("error");
    return out;
}

control_visit read_visit(const control_fields &in)
{
    control_visit out{};
    out.at = in.moment("at");
    out.until = in.moment("until");
    out.times = in.number("times");
    out.address = in.maybe_text("address").value_or("");
    out.device_id = in.maybe_text("deviceId");
    out.route = in.maybe_text("route");
    out.status = in.maybe_number("status");
    out.accepted = in.flag("accepted");
    out.check = in.maybe_text("check");
    out.why = in.maybe_text("why");
    out.hint = in.maybe_text("hint");
    return out;
}

control_report read_report(const control_fields &in)
{
    return {in.moment("at"), in.maybe_text("deviceId").value_or(""),
            in.maybe_text("address").value_or(""), in.number("clients")};
}

control_round read_round(const control_fields &in)
{
    control_round out{};
    out.id = in.number("id");
    out.state = in.text("state");
    out.asked = read_asked(in.object("asked"));
    out.closed = in.maybe_moment("closed");
    out.cause = in.maybe_text("cause");
    out.cause_text = in.maybe_text("causeText");
    out.run = read_run(in.object("pushRun"));
    out.pushes = in.list("pushes", read_push);
    out.visits = in.list("visits", read_visit);
    out.reports = in.list("reports", read_report);
    const control_fields forgotten = in.object("forgotten");
    out.forgotten =
        forgotten.number("pushes") + forgotten.number("visits") + forgotten.number("reports");
    return out;
}

} // namespace

control_rounds control_rounds_read(const cJSON *document, std::string &problem)
{
    const control_fields in{document, "", problem};
    control_rounds out{};
    out.now = in.moment("now");
    out.latest = in.number("latest");
    out.rounds = in.list("rounds", read_round);
    out.visits = in.list("visits", read_visit);
    return out;
}
