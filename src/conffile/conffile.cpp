#include "conffile/conffile.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "file/regular_file.h"
#include "handles/malloc.h"
#include "logger/common_logger.h"
#include "text/trim.h"

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

/// Half a line, in place.
struct trimmed {
    char *text;
    const char *rest = ""; // what stands behind the text and is left out
    bool is_open = false;  // its quote is never closed
};

/// Ends the text at its closing quote and turns each backslash-quote pair into a plain quote.
trimmed unquote(char *text)
{
    char *out = text;
    const char *in = text;
    for (; *in != '\0' && *in != '"'; ++in) {
        if (in[0] == '\\' && in[1] == '"') {
            ++in;
        }
        *out++ = *in;
    }
    const bool is_open = *in == '\0';
    *out = '\0';
    return {text, is_open ? "" : in + 1, is_open};
}

/// The trimmed text, in place: a quoted text up to its closing quote, else the first word.
trimmed trim(char *text)
{
    while (is_space(*text)) {
        ++text;
    }
    if (*text == '"') {
        return unquote(text + 1);
    }
    char *end = text;
    while (*end != '\0' && !is_space(*end)) {
        ++end;
    }
    const bool is_last = *end == '\0';
    *end = '\0';
    return {text, is_last ? "" : end + 1};
}

bool add_pair(ConfigFile &file, const trimmed &key, const trimmed &value)
{
    auto pair = try_make_plain<ConfigPair>();
    if (pair == nullptr) {
        LOG_WARN("cannot allocate memory for ConfigPair");
        return false;
    }
    pair->key = key.text;
    pair->value = value.text;
    pair->next = file.head;
    file.head = pair.release();
    return true;
}

/// A line that is neither empty nor a comment. An account that is given takes it.
bool add_line(ConfigFile &file, unsigned number, char *line, conffile_account *account)
{
    char *equals = std::strchr(line, '=');
    if (equals == nullptr) {
        LOG_WARN("syntax error in configuration");
        if (account != nullptr) {
            account->lines.push_back({.number = number, .is_pair = false});
        }
        return false;
    }
    *equals = '\0';
    const trimmed key = trim(line);
    const trimmed value = trim(equals + 1);
    if (account != nullptr) {
        account->lines.push_back(
            {number, true, key.text, value.text, std::string{::trim(key.rest, white_space)},
             std::string{::trim(value.rest, white_space)}, key.is_open || value.is_open});
    }
    return add_pair(file, key, value);
}

/// Lines end at CR, at LF or at both; empty ones are skipped. The first bad one ends the reading,
/// unless an account of all is wanted.
bool parse_lines(ConfigFile &file, conffile_account *account)
{
    unsigned number = 1;
    bool is_good = true;
    char *rest = file.content;
    while (*rest != '\0') {
        char *const line = rest + std::strspn(rest, " \t");
        char *const end = rest + std::strcspn(rest, "\r\n");
        const bool is_empty = end == rest;
        rest = *end == '\0' ? end : end + 1;
        const unsigned next_number = number + (*end == '\n' ? 1 : 0);
        if (account != nullptr) {
            account->ends_in_comment = *line == '#' && *end == '\0';
        }
        *end = '\0';
        if (!is_empty && *line != '#' && !add_line(file, number, line, account)) {
            state.bad_line = state.bad_line != 0 ? state.bad_line : number;
            is_good = false;
            if (account == nullptr) {
                return false;
            }
        }
        number = next_number;
    }
    if (account != nullptr) {
        account->last_line = number;
        account->has_nul = file.bytes_read > 0 && rest < file.content + file.bytes_read - 1;
    }
    return is_good;
}

/// Reads what fits and drops the last byte, which normally is the last newline.
void read_content(ConfigFile &file, std::FILE *in, conffile_account *account)
{
    file.bytes_read = std::fread(file.content, 1, content_capacity, in);
    if (file.bytes_read == 0) {
        return;
    }
    char &last = file.content[file.bytes_read - 1];
    if (account != nullptr) {
        account->is_cut = file.bytes_read == content_capacity && std::fgetc(in) != EOF;
        account->lost = last == '\n' || last == '\r' ? '\0' : last;
    }
    last = '\0';
}

conffile_ptr make_file()
{
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
    return file;
}

/// With an account, the file with its good lines is the result whatever the others are.
conffile_ptr parse(const char *path, conffile_account *account)
{
    state.bad_line = 0;
    if (path == nullptr) {
        LOG_DEBUG("path is null");
        return nullptr;
    }
    LOG_INFO("parsing configuration file: %s", path);
    const stdio_file in = open_regular_file(path);
    if (in == nullptr) {
        const int error = errno;
        LOG_DEBUG("cannot open file: %s", path);
        if (account != nullptr) {
            account->error = error;
        }
        return nullptr;
    }
    conffile_ptr file = make_file();
    if (file == nullptr) {
        return nullptr;
    }
    read_content(*file, in.get(), account);
    if (!parse_lines(*file, account) && account == nullptr) {
        return nullptr;
    }
    return file;
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
    return parse(path, nullptr);
}

conffile_ptr conffile_account_for(const char *path, conffile_account *account)
{
    *account = {};
    return parse(path, account);
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
