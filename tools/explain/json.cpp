#include "tools/explain/json.h"

#include <utility>

#include "tools/explain/story.h"

namespace {

json_ptr text_or_null(const std::string &text)
{
    return json_ptr{text.empty() ? cJSON_CreateNull() : cJSON_CreateString(text.c_str())};
}

void add(cJSON *object, const char *name, json_ptr value)
{
    cJSON_AddItemToObject(object, name, value.release());
}

void add_story(cJSON *round, const explain_story &story)
{
    json_ptr sentences{cJSON_CreateArray()};
    for (const std::string &sentence : story.sentences) {
        cJSON_AddItemToArray(sentences.get(), cJSON_CreateString(sentence.c_str()));
    }
    add(round, "story", std::move(sentences));
    add(round, "remedy", text_or_null(story.remedy));
}

std::string print(const cJSON *value)
{
    const json_text printed{cJSON_PrintUnformatted(value)};
    return printed == nullptr ? "" : printed.get();
}

void leave_new(cJSON *list, const std::set<std::string> &seen, std::set<std::string> &now)
{
    for (int i = cJSON_GetArraySize(list) - 1; i >= 0; --i) {
        std::string text = print(cJSON_GetArrayItem(list, i));
        if (seen.contains(text)) {
            const json_ptr known{cJSON_DetachItemFromArray(list, i)};
        }
        now.insert(std::move(text));
    }
}

} // namespace

void explain_add_stories(cJSON *document, const control_rounds &rounds, const explain_names &names)
{
    std::size_t i = 0;
    cJSON *round = nullptr;
    cJSON_ArrayForEach(round, cJSON_GetObjectItemCaseSensitive(document, "rounds"))
    {
        add_story(round, explain_round(rounds.rounds[i++], rounds.now, names));
    }
}

void explain_leave_newest(cJSON *document, std::size_t count)
{
    cJSON *const list = cJSON_GetObjectItemCaseSensitive(document, "rounds");
    while (cJSON_GetArraySize(list) > static_cast<int>(count)) {
        const json_ptr older{cJSON_DetachItemFromArray(list, cJSON_GetArraySize(list) - 1)};
    }
}

bool explain_leave_new(cJSON *document, std::set<std::string> &seen)
{
    std::set<std::string> now;
    bool is_any = false;
    for (const char *const name : {"rounds", "visits"}) {
        cJSON *const list = cJSON_GetObjectItemCaseSensitive(document, name);
        leave_new(list, seen, now);
        is_any = is_any || cJSON_GetArraySize(list) > 0;
    }
    seen = std::move(now);
    return is_any;
}
