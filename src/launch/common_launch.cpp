#include "launch/common_launch.h"

#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "launch";
constexpr std::size_t chunk_size = 1024;
constexpr int error_null_command = -2;
constexpr int error_failed = -3;

bool read_output(std::FILE *pipe, std::string &text)
{
    std::size_t got = chunk_size;
    while (got == chunk_size) {
        const std::size_t before = text.size();
        text.resize(before + chunk_size);
        got = std::fread(&text[before], 1, chunk_size, pipe);
        text.resize(before + got);
    }
    if (std::feof(pipe) == 0) {
        LOG_ERROR("fread failed: %s", std::strerror(errno));
        return false;
    }
    return true;
}

} // namespace

common_launched common_launch_begin(const char *command)
{
    if (command == nullptr) {
        LOG_ERROR("Command can't be NULL");
        return {nullptr, error_null_command};
    }
    // NOLINTNEXTLINE(cert-env33-c): a shell is what the caller asks for, with commands of our own
    command_pipe pipe{opened_stream(popen(command, "re"))};
    if (pipe == nullptr) {
        LOG_ERROR("popen failed: %s", std::strerror(errno));
        return {nullptr, error_failed};
    }
    return {std::move(pipe), 0};
}

int common_launch_end(common_launched launched, int *status, std::string *output)
{
    if (output != nullptr) {
        output->clear();
    }
    if (launched.pipe == nullptr) {
        return launched.error;
    }
    std::string text;
    if (output != nullptr && !read_output(launched.pipe.get(), text)) {
        return error_failed;
    }
    const int wait_status = pclose(launched.pipe.release());
    if (wait_status == -1) {
        LOG_ERROR("pclose failed: %s", std::strerror(errno));
        return error_failed;
    }
    if (!WIFEXITED(wait_status)) {
        LOG_ERROR("Command hasn't terminated normally - probably unexpected signal");
        return error_failed;
    }
    if (status != nullptr) {
        *status = wait_status;
    }
    if (output != nullptr) {
        *output = std::move(text);
    }
    return 0;
}

int common_launch(const char *command, int *status, std::string *output)
{
    return common_launch_end(common_launch_begin(command), status, output);
}
