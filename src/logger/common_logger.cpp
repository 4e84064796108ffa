#include "logger/common_logger.h"

#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <forward_list>
#include <optional>
#include <string>
#include <string_view>

#include "handles/config_pairs.h"
#include "handles/exhaustion.h"
#include "logger/keys.h"
#include "logger/line_buffer.h"
#include "logger/log_file.h"

namespace {

struct category_entry {
    std::string name;
    int threshold;
};

struct module_state {
    bool enabled = false;
    int level = LOG_LEVEL_DEBUG;
    bool to_stdout = false;
    bool to_syslog = false;
    bool to_file = false;
    bool line_and_file = false;
    std::string file_name;
    std::uint64_t file_max_size = log_file_default_max_size;
    std::optional<std::string> syslog_ident;
    std::forward_list<category_entry> categories; // the last one used stands first
    const common_logger_observer *observer = nullptr;
};
module_state state;

bool is_true(std::string_view value)
{
    return logger_truth(value).value_or(false);
}

int level_of(const char *name)
{
    return logger_level(name).value_or(LOG_LEVEL_MUTE);
}

/// The category's own threshold, or the global one. A category found moves to the head of the
/// list, so the busy ones are found first.
int threshold_of(std::string_view category)
{
    auto before = state.categories.before_begin();
    for (auto entry = state.categories.begin(); entry != state.categories.end(); before = entry++) {
        if (entry->name == category) {
            const int threshold = entry->threshold;
            if (entry != state.categories.begin()) {
                state.categories.splice_after(state.categories.before_begin(), state.categories,
                                              before);
            }
            return threshold;
        }
    }
    return state.level;
}

void open_or_close_syslog()
{
    if (state.to_syslog) {
        openlog(state.syslog_ident ? state.syslog_ident->c_str() : "unknown", LOG_CONS | LOG_PID,
                LOG_USER);
    } else {
        closelog();
    }
}

void set_syslog_ident(const char *value)
{
    state.syslog_ident = value;
    open_or_close_syslog(); // which may hold a pointer to the ident that was
}

/// A size that the next configuration does not name is the default again.
void begin_configuration()
{
    common_logger_reset();
    state.file_max_size = log_file_default_max_size;
}

void narrow_log_file()
{
    constexpr char log_category[] = "common_logger";
    const mode_t mode_was = state.to_file ? log_file_narrow(state.file_name.c_str()) : 0;
    if (mode_was != 0) {
        LOG_WARN("%s - %s had mode %o: now no more than 640", __func__, state.file_name.c_str(),
                 mode_was);
    }
}

void after_reconfiguration()
{
    open_or_close_syslog();
    narrow_log_file();
    if (state.observer != nullptr && state.observer->reconfigured != nullptr) {
        state.observer->reconfigured();
    }
}

void set_enabled(const char *value)
{
    if (is_true(value)) {
        state.enabled = true;
        return;
    }
    common_logger_reset();
    if (state.observer != nullptr && state.observer->disabled != nullptr) {
        state.observer->disabled();
    }
}

void set_output(bool &output, const char *value)
{
    output = is_true(value);
    state.enabled = state.enabled || output;
}

/// Where a line comes from.
struct line_origin {
    const char *category;
    int level;
    const char *file;
    int line;
};

/// Where the parts of a line begin that are looked at again.
struct line_parts {
    std::size_t after_time;
    std::size_t message;
};

line_parts begin_line(line_buffer &text, const line_origin &origin)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    text.append_time(local);
    text.append(".%03ld ", static_cast<long>(now.tv_usec / 1000));
    const std::size_t after_time = text.length();
    text.append("%5.10s ", logger_level_name(origin.level));
    if (state.line_and_file) {
        text.append("file: %s, line: %i - ", origin.file, origin.line);
    }
    text.append("%s - ", origin.category);
    return {after_time, text.length()};
}

/// False when the message cannot be formatted; standard error then says so.
[[gnu::format(printf, 3, 0)]] bool finish_message(line_buffer &text, const line_parts &parts,
                                                  const char *format, va_list arguments)
{
    if (!text.append(format, arguments)) {
        std::fprintf(stderr, "vsnprintf failed due to error %d\n", errno);
        return false;
    }
    text.replace_control_characters(parts.message);
    return true;
}

/// True when an output other than the observer has the line. It ends with its newline afterwards.
bool emit(line_buffer &line, const line_parts &parts, const line_origin &origin)
{
    if (state.to_stdout) {
        std::puts(line.text());
        std::fflush(stdout);
    }
    if (state.to_syslog) {
        syslog(origin.level > LOG_LEVEL_WARN ? LOG_ERR : LOG_DEBUG - origin.level, "%s",
               line.text(parts.after_time));
    }
    line.end_line();
    const bool in_file =
        state.to_file &&
        log_file_append(state.file_name.c_str(), state.file_max_size, {line.text(), line.length()});
    if (state.observer != nullptr && state.observer->line != nullptr) {
        state.observer->line(origin.category, origin.level, line.text(), origin.file, origin.line);
    }
    return state.to_stdout || state.to_syslog || in_file;
}

void set_known(logger_key known, const char *key, const char *value)
{
    switch (known) {
    case logger_key::enabled:
        set_enabled(value);
        break;
    case logger_key::level:
        state.level = level_of(value);
        break;
    case logger_key::to_stdout:
        set_output(state.to_stdout, value);
        break;
    case logger_key::to_syslog:
        set_output(state.to_syslog, value);
        break;
    case logger_key::to_file:
        set_output(state.to_file, value);
        break;
    case logger_key::file_name:
        state.file_name = std::string{value}.substr(0, log_file_name_max);
        break;
    case logger_key::file_max_size:
        state.file_max_size = logger_size(value).value_or(state.file_max_size);
        break;
    case logger_key::line_and_file:
        state.line_and_file = is_true(value);
        break;
    case logger_key::syslog_ident:
        set_syslog_ident(value);
        break;
    case logger_key::category:
        state.categories.push_front({key + logger_category_prefix.size(), level_of(value)});
        break;
    case logger_key::unknown:
        break;
    }
}

} // namespace

bool common_logger_is_enabled()
{
    return state.enabled;
}

bool common_logger_writes(const char *category, int level)
{
    return state.enabled && level >= threshold_of(category);
}

void common_logger_log(const char *category, int level, const char *file, int line,
                       const char *format, ...)
{
    if (!common_logger_writes(category, level)) {
        return;
    }
    const line_origin origin{category, level, file, line};
    line_buffer text;
    const line_parts parts = begin_line(text, origin);
    va_list arguments;
    va_start(arguments, format);
    if (finish_message(text, parts, format, arguments)) {
        emit(text, parts, origin);
    }
    va_end(arguments);
}

void common_logger_tell(const char *category, int level, const char *file, int line,
                        const char *format, ...)
{
    const line_origin origin{category, level, file, line};
    line_buffer text;
    const line_parts parts = begin_line(text, origin);
    va_list arguments;
    va_start(arguments, format);
    const bool is_whole = finish_message(text, parts, format, arguments);
    va_end(arguments);
    if (!is_whole) {
        return;
    }
    if (!common_logger_writes(category, level)) {
        text.end_line();
    } else if (emit(text, parts, origin)) {
        return;
    }
    // Not as a stream: that may take memory, and the line may be the one that tells there is none.
    log_file_write_all(STDERR_FILENO, {text.text(), text.length()});
}

void common_logger_read_time_zone()
{
    // The C library reads it under a lock that the time of a log line waits for.
    const exhaustion_met_at_end not_under_the_lock;
    tzset();
}

void common_logger_set(const char *key, const char *value)
{
    if (key == nullptr || value == nullptr) {
        return;
    }
    set_known(logger_key_of(key), key, value);
    if (state.observer != nullptr && state.observer->key_set != nullptr) {
        state.observer->key_set(key, value);
    }
}

void common_logger_configure_from_string(const char *text)
{
    begin_configuration();
    std::string_view rest{text == nullptr ? "" : text};
    while (!rest.empty()) {
        const std::string item{rest.substr(0, rest.find(':'))};
        rest.remove_prefix(std::min(rest.size(), item.size() + 1));
        const std::size_t equals = item.find('=');
        if (equals != std::string::npos) {
            common_logger_set(item.substr(0, equals).c_str(), item.substr(equals + 1).c_str());
        }
    }
    after_reconfiguration();
}

void common_logger_configure_from_file(const ConfigFile *file)
{
    begin_configuration();
    for (const ConfigPair *pair = conffile_next_pair(file, nullptr); pair != nullptr;
         pair = conffile_next_pair(file, pair)) {
        if (std::string_view{conffile_pair_key(pair)}.starts_with(logger_prefix)) {
            common_logger_set(conffile_pair_key(pair) + logger_prefix.size(),
                              conffile_pair_value(pair));
        }
    }
    after_reconfiguration();
}

void common_logger_reset()
{
    state.enabled = false;
    state.to_file = false;
    state.categories.clear();
    if (state.to_syslog) {
        state.to_syslog = false;
        closelog();
    }
}

void common_logger_set_observer(const common_logger_observer *observer)
{
    state.observer = observer;
}
