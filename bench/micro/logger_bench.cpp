#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "handles/fd.h"
#include "logger/common_logger.h"

/// A log call while the log is off, or its level is too high, and a TRACE line to a file beside the
/// bare making and appending of the same line.

namespace {

constexpr char log_category[] = "velm_micro";

void disabled(benchmark::State &state)
{
    common_logger_reset();
    int number = 0;
    for (auto _ : state) {
        LOG_TRACE("%s - number %d", __func__, number++);
        benchmark::ClobberMemory();
    }
}

void below_level(benchmark::State &state)
{
    common_logger_configure_from_string("enabled=yes:level=error:stdout=no:syslog=no");
    int number = 0;
    for (auto _ : state) {
        LOG_TRACE("%s - number %d", __func__, number++);
    }
    common_logger_reset();
}

/// A name in a directory for temporary files; the file goes with the object.
class temporary_file {
  public:
    temporary_file() : file_{mkstemp(path_)}
    {
    }
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;
    ~temporary_file()
    {
        unlink(path_);
    }
    [[nodiscard]] const char *path() const
    {
        return path_;
    }
    [[nodiscard]] bool holds_a_line() const
    {
        return lseek(file_.get(), 0, SEEK_END) > 0;
    }

  private:
    char path_[32] = "/tmp/velm-micro-log-XXXXXX";
    unique_fd file_;
};

void trace_velmd(benchmark::State &state)
{
    const temporary_file file;
    common_logger_configure_from_string("enabled=yes:level=trace:stdout=no:syslog=no:file=yes");
    common_logger_set("file.name", file.path());
    int number = 0;
    for (auto _ : state) {
        LOG_TRACE("%s - number %d", __func__, number++);
    }
    common_logger_reset();
    if (!file.holds_a_line()) {
        state.SkipWithError("nothing was written");
    }
}

/// Like the daemon, which lets the file be moved away at any time: opened for each line.
void trace_bare(benchmark::State &state)
{
    const temporary_file file;
    int number = 0;
    for (auto _ : state) {
        timeval now{};
        gettimeofday(&now, nullptr);
        std::tm local{};
        localtime_r(&now.tv_sec, &local);
        char line[256];
        const std::size_t length = std::strftime(line, sizeof line, "%F %T", &local);
        const int rest =
            std::snprintf(line + length, sizeof line - length, ".%03ld TRACE %s - %s - number %d\n",
                          static_cast<long>(now.tv_usec / 1000), log_category, __func__, number++);
        const unique_fd out{open(file.path(), O_WRONLY | O_APPEND | O_CLOEXEC)};
        if (write(out.get(), line, length + static_cast<std::size_t>(rest)) <= 0) {
            state.SkipWithError("nothing was written");
            break;
        }
    }
}

BENCHMARK(disabled)->Name("log call, log off");
BENCHMARK(below_level)->Name("log call below the level");
BENCHMARK(trace_velmd)->Name("TRACE line to a file/velmd");
BENCHMARK(trace_bare)->Name("TRACE line to a file/bare");

} // namespace
