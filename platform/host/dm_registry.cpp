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

#include "host_files.h"

/// The registry is a file of JSON lines, one a registration: {"pid": N, "argv": [...], "flags": 0}.

namespace {

constexpr char default_registry[] = "/run/velmd/restart.jsonl";

unsigned byte_at(std::string_view text, std::size_t i)
{
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
}

/// The length of the UTF-8 sequence that `text` begins with; 0 when it is none. The second byte
/// decides what is overlong, a surrogate or beyond the last code point.
std::size_t utf8_length(std::string_view text)
{
    const unsigned lead = byte_at(text, 0);
    if (lead < 0x80) {
        return 1;
    }
    if (lead < 0xc2 || lead > 0xf4) {
        return 0;
    }
    const std::size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    const unsigned low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
    const unsigned high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
    if (byte_at(text, 1) < low || byte_at(text, 1) > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte_at(text, i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    return length;
}

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
        } else if (length == 1 && (byte_at(text, 0) < 0x20 || c == 0x7f)) {
            std::array<char, 8> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x", byte_at(text, 0));
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
    const std::size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash != 0) {
        if (const int rc = host_directory_make(path.substr(0, slash), 0755); rc != 0) {
            return rc;
        }
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
