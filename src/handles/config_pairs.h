#pragma once

#include <cstddef>

/// A configuration file that conffile/conffile.h has parsed, as the list of its pairs. The logger reads
/// its own keys from this list, so the list logs nothing. A ConfigFile owns the text that was read; its
/// pairs point into it. Pairs stand in reverse line order.

struct ConfigPair {
    const char *key;
    const char *value;
    ConfigPair *next;
};

struct ConfigFile {
    ConfigPair *head;
    char *content;
    std::size_t bytes_read;
};

/// The first pair when `pair` is null, else the one behind it; null at the end or without a file.
[[nodiscard]] inline const ConfigPair *conffile_next_pair(const ConfigFile *file,
                                                          const ConfigPair *pair)
{
    if (file == nullptr) {
        return nullptr;
    }
    return pair == nullptr ? file->head : pair->next;
}

[[nodiscard]] inline const char *conffile_pair_key(const ConfigPair *pair)
{
    return pair->key;
}

[[nodiscard]] inline const char *conffile_pair_value(const ConfigPair *pair)
{
    return pair->value;
}
