#pragma once

#include <cstddef>

/// Copies as much of `text`, null for none, as fits with its terminator: whole UTF-8 characters only.
void text_cut_to(char *field, std::size_t size, const char *text);

template <std::size_t Size>
void text_cut(char (&field)[Size], const char *text)
{
    text_cut_to(field, Size, text);
}
