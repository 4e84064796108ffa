#include <dm.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "file/directory.h"
#include "host_files.h"
#include "text/utf8.h"

/// The registry is a file of JSON lines, one a registration: {"pid": N, "argv": [...], "flags": 0}.

namespace {

constexpr char default_registry[] = "/run/velmd/restart.jsonl";

/// A JSON string. Bytes that are no UTF-8 become U+FFFD, for JSON has no word for them.
void json_append_text(std::string &out, std::string_view text)
{
    out += '"';
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const char c = text.front();
        if (length == 0) {
            out += "\\ufffd";
        } else if (c == '"' || c == '\\') {
            out.append({'\\', c});
        } else if (length == 1 && (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)) {
            std::array<char, 8> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(c));
            out += escape.data();
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    out += '"';
}

std::string registry_line(int pid, int argc, char **argv, int flags)
{
    std::string line = "{\"pid\": " + std::to_string(pid) + ", \"argv\": [";
    for (int i = 0; i < argc && argv[i] != nullptr; ++i) {
        line += i == 0 ? "" : ", ";
        json_append_text(line, argv[i]);
    }
    return line + "], \"flags\": " + std::to_string(flags) + "}\n";
}

/// True when a line at the end lacks its newline: a full disk once cut it.
bool ends_in_a_cut_line(int file)
{
    struct stat found = {};
    char last = '\n';
    return fstat(file, &found) == 0 && S_ISREG(found.st_mode) && found.st_size > 0 &&
           pread(file, &last, 1, found.st_size - 1) == 1 && last != '\n';
}

int registry_append(const std::string &path, std::string line)
{
    if (const int rc = host_directory_make(parent_directory(path), 0755); rc != 0) {
        return rc;
    }
    const unique_fd file{open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644)};
    if (!file) {
        return errno;
    }
    // The lock only keeps a line that is being written from being taken for a cut one; without it
    // an empty line may come between.
    (void)host_file_lock(file.get(), LOCK_EX);
    if (ends_in_a_cut_line(file.get())) {
        line.insert(0, "\n");
    }
    // One write: lines of processes that register at once never mix.
    const ssize_t written = write(file.get(), line.data(), line.size());
    if (written == static_cast<ssize_t>(line.size())) {
        return 0;
    }
    return written < 0 ? errno : ENOSPC;
}

} // namespace

int dm_register_app_restart_info(int pid, int argc, char **argv, int flags)
{
    if (argc < 0 || (argc > 0 && argv == nullptr)) {
        return -1;
    }
    const char *const named = std::getenv("VELM_DM_REGISTRY");
    const std::string path = named != nullptr && named[0] != '\0' ? named : default_registry;
    const int rc = registry_append(path, registry_line(pid, argc, argv, flags));
    if (rc != 0) {
        std::fprintf(stderr, "dm: cannot register in %s: %s\n", path.c_str(), std::strerror(rc));
    }
    return rc == 0 ? 0 : -1;
}
