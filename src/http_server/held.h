#pragma once

#include <event2/buffer.h>

#include <cstddef>
#include <string>

/// Texts that hold what a client has sent. It may have a password in it: no copy stays where a text has
/// lain. And what a text has more room than bytes would count as held: it grows and shrinks by little.
/// Internal to the server's connections.

/// Overwrites the characters of the text, which keeps its length.
void http_held_wipe(std::string *text);

/// The same for what lies in a buffer of the library; it stays there. A message reaches the library in one
/// piece: what lies behind the fourth piece of a buffer is not overwritten.
void http_held_wipe(evbuffer *buffer);

/// Moves all that is in the buffer behind the text, and overwrites where it lay.
void http_held_take_over(std::string *text, evbuffer *input);

/// Room for that many bytes more.
void http_held_make_room(std::string *text, std::size_t size);

/// Takes that many bytes off the front, at most all.
void http_held_take_off(std::string *text, std::size_t size);

/// Puts the other one behind it. The other one is empty then, and without room.
void http_held_move_behind(std::string *text, std::string *other);
