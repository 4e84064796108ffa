#pragma once

#include <cstddef>
#include <string>

/// What a 404 of the push service is about. True: about the push token, which nobody has any more.
/// False: about something else, as when a whole API or project has gone; the answer then is a page
/// of HTML, or JSON whose error has an "errorCode" other than "UNREGISTERED" among its details.
/// An answer that says nothing is about the token. A body is followed by a NUL, which its length
/// leaves out; both texts may be null.
[[nodiscard]] bool velm_fcm_answer_is_about_the_token(const char *body, std::size_t length,
                                                      const char *content_type);

/// What a 404 means, in words: the token is nobody's any more, so that the phone is unpaired; the phone has
/// paired again meanwhile; or the answer is about something else.
inline constexpr char velm_fcm_words_unpaired[] = "the push token is not registered any more";
inline constexpr char velm_fcm_words_renewed[] = "the phone has another push token by now";
inline constexpr char velm_fcm_words_stays[] = "the answer is not about the push token";

/// What an answer other than 200 means, in a few words; a code below 1 is the http_client's. Of the body it
/// names at most the "status" of the error, and that only when it is one of Google's words.
[[nodiscard]] std::string velm_fcm_answer_words(int code, const char *body, std::size_t length,
                                                const char *content_type);
