#include "tools/control/document.h"

#include "tools/control/fields.h"
#include "tools/terminal/text.h"

json_ptr control_document_parse(const std::string &text, std::string &problem)
{
    constexpr bool nothing_behind = true;
    json_ptr document{cJSON_ParseWithOpts(text.c_str(), nullptr, nothing_behind)};
    if (document == nullptr) {
        problem = "the document is no JSON";
        return nullptr;
    }
    const std::int64_t version = control_fields{document.get(), "", problem}.number("version");
    if (problem.empty() && version != control_version) {
        problem = "the document has version " + std::to_string(version) +
                  ", and this velmctl knows version " + std::to_string(control_version);
    }
    return problem.empty() ? std::move(document) : nullptr;
}

std::string control_document_print(const cJSON *document)
{
    const json_text printed{cJSON_PrintUnformatted(document)};
    return velmctl_document_for_output(printed == nullptr ? "null" : printed.get()) + '\n';
}
