#include "config/file_notes.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "text/or_empty.h"

namespace {

struct noted_file {
    std::string_view key;
    file_note note;
};

/// As many as there are settings that name a file.
std::vector<noted_file> notes;

auto find(std::string_view key)
{
    return std::find_if(notes.begin(), notes.end(),
                        [key](const noted_file &one) { return one.key == key; });
}

} // namespace

void file_note_set(const char *key, const char *path, const char *why, file_reading reading)
{
    file_note note{text_or_empty(path),
                   reading == file_reading::tried ? std::time(nullptr) : std::time_t{0},
                   text_or_empty(why)};
    if (const auto found = find(key); found != notes.end()) {
        found->note = std::move(note);
    } else {
        notes.push_back({key, std::move(note)});
    }
}

const file_note *file_note_get(const char *key)
{
    const auto found = find(key);
    return found != notes.end() ? &found->note : nullptr;
}
