#include "file/common_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

#include "file/regular_file.h"
#include "handles/file.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "common_file";

/// On the disk when it returns true, so that the rename never puts a shorter text in place, even
/// when the power fails.
bool write_through(stdio_file file, std::string_view text)
{
    const bool written = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
                         std::fflush(file.get()) == 0 && fsync(fileno(file.get())) == 0;
    return std::fclose(file.release()) == 0 && written;
}

bool dump_string_to_file(const char *path, std::string_view text)
{
    stdio_file file{opened_stream(std::fopen(path, "w+e"))};
    if (file == nullptr) {
        LOG_ERROR("%s - cannot open file %s for writing", __func__, path);
        return false;
    }
    if (!write_through(std::move(file), text)) {
        LOG_ERROR("%s - error writing file %s", __func__, path);
        return false;
    }
    return true;
}

bool replace_file(const char *caller, const char *path_tmp, const char *path, std::string_view text)
{
    if (common_file_exists(path_tmp) && std::remove(path_tmp) == 0) {
        LOG_WARN("%s - previous file write failed, proceeding", caller);
    }
    if (!dump_string_to_file(path_tmp, text)) {
        return false;
    }
    if (std::rename(path_tmp, path) != 0) {
        LOG_ERROR("%s - error renaming from %s to %s: %s", caller, path_tmp, path,
                  std::strerror(errno));
        return false;
    }
    return true;
}

} // namespace

bool common_file_save_to_file(const char *path_to_file, std::string_view text)
{
    if (path_to_file == nullptr) {
        LOG_ERROR("%s - error saving file %s", __func__, "(null)");
        return false;
    }
    const allocation_name naming{__func__, "path_tmp"};
    const std::string path_tmp = std::string{path_to_file} + ".tmp";
    if (!replace_file(__func__, path_tmp.c_str(), path_to_file, text)) {
        LOG_ERROR("%s - error saving file %s", __func__, path_to_file);
        return false;
    }
    return true;
}

std::optional<std::string> read_binary_file(const char *path)
{
    const stdio_file file = open_regular_file(path);
    if (file == nullptr) {
        LOG_WARN("%s - cannot open the file %s: %s", __func__, path == nullptr ? "(null)" : path,
                 std::strerror(errno));
        return std::nullopt;
    }
    if (fseeko(file.get(), 0, SEEK_END) != 0) {
        LOG_WARN("%s - cannot determine size of the file (1): %s", __func__, std::strerror(errno));
        return std::nullopt;
    }
    const off_t end = ftello(file.get());
    if (end < 0) {
        LOG_WARN("%s - cannot determine size of the file (2): %s", __func__, std::strerror(errno));
        return std::nullopt;
    }
    if (fseeko(file.get(), 0, SEEK_SET) != 0) {
        LOG_WARN("%s - cannot determine size of the file (3): %s", __func__, std::strerror(errno));
        return std::nullopt;
    }
    if (static_cast<std::uintmax_t>(end) > common_file_size_max) {
        LOG_WARN("%s - cannot alloc memory for the buffer: %s", __func__, std::strerror(EFBIG));
        return std::nullopt;
    }
    const auto size = static_cast<std::size_t>(end);
    std::string content(size, '\0');
    errno = 0; // a file that has become shorter sets none
    if (std::fread(content.data(), 1, size, file.get()) != size) {
        LOG_WARN("%s - cannot read data from the file: %s", __func__, std::strerror(errno));
        return std::nullopt;
    }
    return content;
}

bool common_file_exists(const char *path)
{
    struct stat status {};
    return path != nullptr && ::stat(path, &status) == 0;
}
