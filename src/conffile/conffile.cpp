#include "conffile/conffile.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "file/regular_file.h"
#include "handles/malloc.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "conf_file";
constexpr std::size_t content_capacity = 4096;

struct module_state {
    unsigned bad_line = 0; // of the last file
};
module_state state;

bool is_space(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

/// Ends the text at its closing quote and turns each backslash-quote pair into a plain quote.
void unquote(char *text)
{
    char *out = text;
    for (const char *in = text; *in != '\0' && *in != '"'; ++in) {
        if (in[0] == '\\' && in[1] == '"') {
            ++in;
        }
        *out++ = *in;
    }
    *out = '\0';
}

/// The trimmed text, in place: a quoted text up to its closing quote, else the first word.
char *trim(char *text)
{
    while (is_space(*text)) {
        ++text;
    }
    if (*text == '"') {
        unquote(++text);
        return text;
    }
    char *end = text;
    while (*end != '\0' && !is_space(*end)) {
        ++end;
    }
    *end = '\0';
    return text;
}

bool add_pair(ConfigFile &file, char *line)
{
    char *equals = std::strchr(line, '=');
    if (equals == nullptr) {
        LOG_WARN("syntax error in configuration");
        return false;
    }
    *equals = '\0';
    auto pair = try_make_plain<ConfigPair>();
    if (pair == nullptr) {
        LOG_WARN("cannot allocate memory for ConfigPair");
        return false;
    }
    pair->key = trim(line);
    pair->value = trim(equals + 1);
    pair->next = file.head;
    file.head = pair.release();
    return true;
}

/// Lines end at CR, at LF or at both; empty ones are skipped.
bool parse_lines(ConfigFile &file)
{
    unsigned number = 1;
    for (char *rest = file.content; *rest != '\0';) {
        char *const line = rest + std::strspn(rest, " \t");
        char *const end = rest + std::strcspn(rest, "\r\n");
        const bool is_empty = end == rest;
        rest = *end == '\0' ? end : end + 1;
        const unsigned next_number = number + (*end == '\n' ? 1 : 0);
        *end = '\0';
        if (!is_empty && *line != '#' && !add_pair(file, line)) {
            state.bad_line = number;
            return false;
        }
        number = next_number;
    }
    return true;
}

/// Reads what fits and drops the last byte, which normally is the last newline.
void read_content(ConfigFile &file, std::FILE *in)
{
    file.bytes_read = std::fread(file.content, 1, content_capacity, in);
    if (file.bytes_read > 0) {
        file.content[file.bytes_read - 1] = '\0';
    }
}

} // namespace

void conffile_deleter::operator()(ConfigFile *file) const noexcept
{
    const plain_ptr<ConfigFile> owner{file};
    const plain_ptr<char> content{file->content};
    for (ConfigPair *pair = file->head; pair != nullptr;) {
        const plain_ptr<ConfigPair> owned{pair};
        pair = owned->next;
    }
}

conffile_ptr conffile_parse(const char *path)
{
    state.bad_line = 0;
    if (path == nullptr) {
        LOG_DEBUG("path is null");
        return nullptr;
    }
    LOG_INFO("parsing configuration file: %s", path);
    const stdio_file in = open_regular_file(path);
    if (in == nullptr) {
        LOG_DEBUG("cannot open file: %s", path);
        return nullptr;
    }
    conffile_ptr file{try_make_plain<ConfigFile>().release()};
    if (file == nullptr) {
        LOG_WARN("cannot allocate memory for ConfigFile");
        return nullptr;
    }
    file->content = try_make_plain<char>(content_capacity).release();
    if (file->content == nullptr) {
        LOG_WARN("cannot allocate memory for ConfigFile content");
        return nullptr;
    }
    read_content(*file, in.get());
    if (!parse_lines(*file)) {
        return nullptr;
    }
    return file;
}

unsigned conffile_bad_line()
{
    return state.bad_line;
}

const char *conffile_get_value(const ConfigFile *file, const char *key)
{
    if (key == nullptr) {
        LOG_WARN("key is null");
        return nullptr;
    }
    if (file == nullptr) {
        LOG_WARN("cfile is null");
        return nullptr;
    }
    if (file->head == nullptr) {
        LOG_WARN("cfile does not contain any key-value pairs");
        return nullptr;
    }
    for (const ConfigPair *pair = file->head; pair != nullptr; pair = pair->next) {
        if (std::string_view{pair->key} == key) {
            return pair->value;
        }
    }
    return nullptr;
}
