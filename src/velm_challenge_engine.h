#pragma once

/// One-time challenges: issued to a phone, accepted back exactly once. Each has 32 lower-case
/// hexadecimal digits (16 random bytes). It lives 60 s, also when the clock is set back meanwhile.
/// At most 1000 wait at a time.

/// Forgets every challenge. Called at start and on each reload.
void velm_challenge_engine_init();

/// Issues a challenge; null when 1000 are waiting. The engine owns the text: copy it at once.
[[nodiscard]] const char *velm_challenge_engine_generate_challenge();

/// 1 once per issued text, within its 60 s; else 0. A null challenge is fatal.
[[nodiscard]] int velm_challenge_engine_consume_challenge(const char *challenge);
