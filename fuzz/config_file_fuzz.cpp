#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "allocation_meter.h"
#include "captured_output.h"
#include "conffile/conffile.h"
#include "fuzz_target.h"
#include "handles/fd.h"
#include "logger/common_logger.h"
#include "velm_config.h"

namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;

/// A file in memory with these bytes.
const char *file_with(std::string_view content)
{
    static const unique_fd file{memfd_create("velmd.conf", MFD_CLOEXEC)};
    static const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    FUZZ_REQUIRE(ftruncate(file.get(), 0) == 0);
    FUZZ_REQUIRE(pwrite(file.get(), content.data(), content.size(), 0) ==
                 static_cast<ssize_t>(content.size()));
    return path.c_str();
}

pairs pairs_of(const ConfigFile *file)
{
    pairs all;
    const ConfigPair *pair = nullptr;
    while ((pair = conffile_next_pair(file, pair)) != nullptr) {
        all.emplace_back(conffile_pair_key(pair), conffile_pair_value(pair));
    }
    std::ranges::reverse(all); // they stand in reverse line order
    return all;
}

bool has_space(std::string_view text)
{
    return text.find_first_of(" \t\n\v\f\r") != std::string_view::npos;
}

/// The text as the file writes it; false when the format has no way to write it.
bool write(const std::string &text, std::string *out)
{
    if (!text.empty() && !has_space(text) && text.front() != '"' && text.front() != '#') {
        *out += text;
        return true;
    }
    *out += '"';
    for (const char c : text) {
        *out += c == '"' ? "\\\"" : std::string{c};
    }
    *out += '"';
    return !text.ends_with('\\') && text.find("\\\"") == std::string::npos;
}

/// The same pairs come back when they are written and read again.
void write_and_read(const pairs &all)
{
    std::string content;
    bool can = true;
    for (const auto &[key, value] : all) {
        can = can && write(key, &content);
        content += '=';
        can = can && write(value, &content);
        content += '\n';
    }
    if (!can || content.empty() || content.size() >= 4096) {
        return;
    }
    const conffile_ptr again = conffile_parse(file_with(content));
    FUZZ_REQUIRE(again != nullptr && pairs_of(again.get()) == all);
}

/// The last line of a key is the one that counts.
void look_up(const ConfigFile *file, const pairs &all)
{
    for (const auto &pair : all) {
        const auto last = std::find_if(all.rbegin(), all.rend(), [&pair](const auto &other) {
            return other.first == pair.first;
        });
        const char *const found = conffile_get_value(file, pair.first.c_str());
        FUZZ_REQUIRE(found != nullptr && last->second == found);
    }
}

template <std::size_t Size>
void is_text(const char (&field)[Size])
{
    FUZZ_REQUIRE(std::memchr(field, '\0', Size) != nullptr);
}

void load(const char *path)
{
    velm_config config{};
    velm_config_set_defaults(&config);
    errno = 0; // a stale one would keep the numbers from being stored
    velm_config_load_from_file(&config, path);
    is_text(config.pid_file_path);
    is_text(config.http_client_ca_cert_path);
    is_text(config.http_server_cert_path);
    is_text(config.http_server_key_path);
    is_text(config.app_android_package_name);
    is_text(config.app_android_integrity_method);
    is_text(config.app_ios_appid);
    is_text(config.location_policy_ipc_sock);
    is_text(config.vendor_id);
    velm_config_print_to_log(&config);
    common_logger_configure_from_string("level=debug:stdout=no:file.name=:syslog.ident=velmd");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const captured_output quiet;
    const std::string_view content = fuzz_text({data, size});
    const char *const path = file_with(content);
    {
        const allocation_meter meter;
        const conffile_ptr file = conffile_parse(path);
        // The content, the stream's buffer, and a pair of 24 bytes for every two bytes of "=\n".
        FUZZ_REQUIRE(meter.peak() <= 4096 / 2 * 24 + 16 * 1024);
        if (file == nullptr) {
            FUZZ_REQUIRE(meter.left() == 0);
        }
    }
    if (const conffile_ptr file = conffile_parse(path)) {
        const pairs all = pairs_of(file.get());
        look_up(file.get(), all);
        write_and_read(all);
    }
    load(file_with(content));
    return 0;
}
