#pragma once

/// The one logger of the process: five levels, a threshold a category, three outputs (standard
/// output, syslog, an append-only file). Used on the event loop only; it never allocates per line.
///
/// A source file names its category once, in its anonymous namespace, and logs through the macros:
///     constexpr char log_category[] = "velm_ipc";
///     LOG_WARN("%s - cannot bind: %s", __func__, std::strerror(errno));
/// A log text is an interface: one whole literal at the call. Control characters that reach a line
/// through an argument are replaced by a blank (white space) or "?" (the others), so nobody outside
/// can forge a line.

enum common_log_level : int {
    LOG_LEVEL_TRACE = 0,
    LOG_LEVEL_DEBUG = 1,
    LOG_LEVEL_INFO = 2,
    LOG_LEVEL_WARN = 3,
    LOG_LEVEL_ERROR = 4,
    /// Where "SYSLOG" and every unknown level name lead; as a threshold it mutes all of the above.
    LOG_LEVEL_MUTE = 5,
};

struct ConfigFile;

/// Functions told of what the logger does; a null one is skipped. The daemon installs none.
struct common_logger_observer {
    void (*reconfigured)();
    void (*disabled)();
    void (*line)(const char *category, int level, const char *text, const char *file, int line);
    void (*key_set)(const char *key, const char *value);
};

/// Emits one line of at most 7999 characters; a longer one is cut.
[[gnu::format(printf, 5, 6)]] void common_logger_log(const char *category, int level,
                                                     const char *file, int line, const char *format,
                                                     ...);

/// The same for a line that must not be lost. The log may be off, the level not written, or the
/// file not writable. If then no output but the observer has the line, it goes to standard error.
/// Allocates nothing.
[[gnu::format(printf, 5, 6)]] void common_logger_tell(const char *category, int level,
                                                      const char *file, int line,
                                                      const char *format, ...);

/// Reads the time zone, which the times of the lines are in: at start and on every reload.
void common_logger_read_time_zone();

/// False while nothing can be emitted, so that the macros do not even evaluate their arguments.
[[nodiscard]] bool common_logger_is_enabled();

/// False when a line of that category and level would be written nowhere: asked before anything is put
/// together for it.
[[nodiscard]] bool common_logger_writes(const char *category, int level);

/// Sets one key ("enabled", "level", "stdout", "syslog", "file", "file.name", "file.maxsize",
/// "lineandfile", "syslog.ident", "category.NAME"). Unknown keys are ignored; a null key or value too.
void common_logger_set(const char *key, const char *value);

/// Resets, then applies items of the form key=value separated by ":"; items without "=" are
/// ignored. Opens or closes syslog last.
void common_logger_configure_from_string(const char *text);

/// Resets, then applies every pair whose key begins with "logger.", in the file's pair order.
/// Opens or closes syslog last.
void common_logger_configure_from_file(const ConfigFile *file);

/// Disables the logger, its file output and syslog, and forgets every category. Level, standard
/// output flag, "lineandfile", file name and size, and syslog ident are kept.
void common_logger_reset();

/// `observer` is borrowed and must outlive its use; null removes it.
void common_logger_set_observer(const common_logger_observer *observer);

// clang-format off
#define LOG_AT(level, ...)                                                                        \
    do {                                                                                          \
        if (common_logger_is_enabled()) {                                                         \
            common_logger_log(log_category, level, __FILE__, __LINE__, __VA_ARGS__);              \
        }                                                                                         \
    } while (false)
#define LOG_TRACE(...) LOG_AT(LOG_LEVEL_TRACE, __VA_ARGS__)
#define LOG_DEBUG(...) LOG_AT(LOG_LEVEL_DEBUG, __VA_ARGS__)
#define LOG_INFO(...)  LOG_AT(LOG_LEVEL_INFO, __VA_ARGS__)
#define LOG_WARN(...)  LOG_AT(LOG_LEVEL_WARN, __VA_ARGS__)
#define LOG_ERROR(...) LOG_AT(LOG_LEVEL_ERROR, __VA_ARGS__)
/// Why the process ends: a line that is told on standard error when the log does not have it.
#define LOG_REASON(level, ...)                                                                    \
    common_logger_tell(log_category, level, __FILE__, __LINE__, __VA_ARGS__)
// clang-format on
