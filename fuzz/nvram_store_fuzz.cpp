#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>

#include "allocation_meter.h"
#include "fuzz_target.h"
#include "nvram_maker.h"
#include "nvram_store.h"

/// A whole store: the three files, each behind a byte and its length. The byte says what is made of
/// it: nothing, the bytes as they are, or records with checksums behind a good header.

/// Not watched, the store reads its files each time. The kernel takes milliseconds to end a watch.
extern "C" int inotify_init1(int)
{
    errno = EMFILE;
    return -1;
}

namespace {

constexpr std::string_view boot = "11111111-2222-3333-4444-555555555555";

/// In memory, gone with the process.
class store_folder {
  public:
    store_folder()
    {
        std::string pattern = "/dev/shm/velm_fuzz_XXXXXX";
        FUZZ_REQUIRE(mkdtemp(pattern.data()) != nullptr);
        path = pattern;
    }
    ~store_folder()
    {
        std::filesystem::remove_all(path);
    }
    store_folder(const store_folder &) = delete;
    store_folder &operator=(const store_folder &) = delete;

    void clear() const
    {
        for (const auto &entry : std::filesystem::directory_iterator{path}) {
            std::filesystem::remove(entry.path());
        }
    }

    void write(const char *name, fuzz_bytes bytes) const
    {
        const unique_fd file{
            open((path + "/" + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)};
        FUZZ_REQUIRE(::write(file.get(), bytes.data(), bytes.size()) ==
                     static_cast<ssize_t>(bytes.size()));
    }

    std::string path;
};

void make_file(const store_folder &folder, const char *name, std::string_view boot_id,
               fuzz_input *in)
{
    const unsigned kind = in->byte() % 4;
    const std::uint64_t sequence = in->byte();
    const fuzz_bytes content = in->bytes(in->word());
    if (kind == 1) {
        folder.write(name, content);
    } else if (kind > 1) {
        nvram_bytes file = nvram_make_header(sequence, boot_id);
        const nvram_bytes records = nvram_make_records({content.data(), content.size()});
        file.insert(file.end(), records.begin(), records.end());
        folder.write(name, file);
    }
}

/// The store reports damage on standard error. A fuzzer would fill the screen with it.
class quiet_errors {
  public:
    quiet_errors() : kept_{stderr}
    {
        static std::FILE *const nowhere = std::fopen("/dev/null", "w");
        stderr = nowhere;
    }
    ~quiet_errors()
    {
        stderr = kept_;
    }
    quiet_errors(const quiet_errors &) = delete;
    quiet_errors &operator=(const quiet_errors &) = delete;

  private:
    std::FILE *kept_;
};

/// Every other process sees what was set and committed, and so does a start after a power cut.
void change_and_commit(const std::string &path, nvram_store &store)
{
    const std::array changes{nvram_change{"fuzz", "value"}, nvram_change{"gone", std::nullopt}};
    const int applied = store.apply(changes);
    if (applied != 0) {
        FUZZ_REQUIRE(applied == nvram_too_much); // what was there fills the store
        return;
    }
    const nvram_settings after = store.settings();
    FUZZ_REQUIRE(after.contains("fuzz") && !after.contains("gone") && store.fault() == 0);
    FUZZ_REQUIRE(nvram_store(path, std::string{boot}).settings() == after);
    FUZZ_REQUIRE(store.commit() == 0);
    FUZZ_REQUIRE(nvram_store(path, "another boot").settings() == after);
    FUZZ_REQUIRE(store.revert() == 0 && store.settings() == after);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const store_folder folder;
    const quiet_errors quiet;
    folder.clear();
    fuzz_input in{data, size};
    make_file(folder, "live", boot, &in);
    make_file(folder, "committed.0", {}, &in);
    make_file(folder, "committed.1", {}, &in);

    const allocation_meter meter;
    nvram_store store{folder.path, std::string{boot}};
    const nvram_settings before = store.settings();
    // Two copies of the settings, each a node of a hundred bytes for a record of ten.
    FUZZ_REQUIRE(meter.peak() <= 64 * size + 64 * 1024);
    FUZZ_REQUIRE(store.fault() == 0 || store.fault() == nvram_all_damaged);
    FUZZ_REQUIRE(store.fault() == 0 || before.empty());
    // Reading changes nothing: another reader sees the same.
    nvram_store other{folder.path, std::string{boot}};
    FUZZ_REQUIRE(other.settings() == before && other.fault() == store.fault());
    change_and_commit(folder.path, store);
    return 0;
}
