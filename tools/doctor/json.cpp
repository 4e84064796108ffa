#include "tools/doctor/json.h"

#include "handles/cjson.h"
#include "text/rfc3339.h"
#include "text/utf8.h"
#include "tools/control/document.h"

namespace {

constexpr const char *levels[] = {"OK", "WARN", "FAIL"}; // in the order of doctor_grade

void add_text(cJSON *object, const char *name, const std::string &text)
{
    cJSON_AddStringToObject(object, name, utf8_mended(text).c_str());
}

void add_finding(cJSON *findings, const doctor_line &line)
{
    constexpr char between[] = ": ";
    const std::size_t end = line.what.find(between);
    const bool has_subject = end != std::string::npos;
    cJSON *const finding = cJSON_CreateObject();
    cJSON_AddItemToArray(findings, finding);
    add_text(finding, "level", levels[static_cast<std::size_t>(line.grade)]);
    add_text(finding, "subject", has_subject ? line.what.substr(0, end) : "");
    add_text(finding, "text", has_subject ? line.what.substr(end + sizeof between - 1) : line.what);
    if (line.remedy.empty()) {
        cJSON_AddNullToObject(finding, "remedy");
    } else {
        add_text(finding, "remedy", line.remedy);
    }
}

} // namespace

std::string doctor_to_json(const std::vector<doctor_line> &lines, std::int64_t now)
{
    const json_ptr document{cJSON_CreateObject()};
    cJSON_AddNumberToObject(document.get(), "version", control_version);
    add_text(document.get(), "now", text_rfc3339(now));
    cJSON *const findings = cJSON_AddArrayToObject(document.get(), "findings");
    for (const doctor_line &line : lines) {
        add_finding(findings, line);
    }
    return control_document_print(document.get());
}
