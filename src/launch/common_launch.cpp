#include "launch/common_launch.h"

#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "handles/exhaustion.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "launch";
constexpr int error_null_command = -2;
constexpr int error_failed = -3;

} // namespace

common_launched common_launch_begin(const char *command)
{
    if (command == nullptr) {
        LOG_ERROR("Command can't be NULL");
        return {nullptr, error_null_command};
    }
    auto pipe = common_launch_process_start(command);
    if (pipe == nullptr) {
        memory_is_exhausted_if(errno == ENOMEM);
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
    if (!launched.pipe->read_to_end()) {
        return error_failed;
    }
    const std::optional<int> wait_status = launched.pipe->wait();
    if (!wait_status.has_value()) {
        LOG_ERROR("pclose failed: %s", std::strerror(errno));
        return error_failed;
    }
    if (!WIFEXITED(*wait_status)) {
        LOG_ERROR("Command hasn't terminated normally - probably unexpected signal");
        return error_failed;
    }
    if (status != nullptr) {
        *status = *wait_status;
    }
    if (output != nullptr) {
        *output = std::move(launched.pipe->text());
    }
    return 0;
}

int common_launch(const char *command, int *status, std::string *output)
{
    return common_launch_end(common_launch_begin(command), status, output);
}
