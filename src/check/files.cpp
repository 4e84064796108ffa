#include "check/files.h"

#include <cerrno>
#include <cstring>

#include "file/common_file.h"
#include "file/regular_file.h"

std::optional<check_file> check_readable(const check_subject &subject, const char *key,
                                         const char *path, check_findings *findings)
{
    if (*path == '\0') {
        findings->error(check_place_of(subject, key), "%s: no file is named", key);
        return std::nullopt;
    }
    check_file file{key, check_path_of(subject, path)};
    if (open_regular_file(file.path.c_str()) == nullptr) {
        const char *const why = errno == EINVAL ? "it is no regular file" : std::strerror(errno);
        findings->error(file.place(), "cannot be read: %s (%s)", why, key);
        return std::nullopt;
    }
    return file;
}

std::optional<std::string> check_read(const check_subject &subject, const char *key,
                                      const char *path, check_findings *findings)
{
    const std::optional<check_file> file = check_readable(subject, key, path, findings);
    if (!file) {
        return std::nullopt;
    }
    std::optional<std::string> text = read_binary_file(file->path.c_str());
    if (!text) {
        findings->error(file->place(), "cannot be read: it is longer than %zu bytes (%s)",
                        common_file_size_max, key);
    } else if (text->empty()) {
        findings->error(file->place(), "it is empty (%s)", key);
        return std::nullopt;
    }
    return text;
}
