#pragma once

/// What a process needs before it does anything else.

/// Before anything can write to a closed peer, run out of memory or be told to reload: standard streams,
/// umask, signals, the end of the process when memory runs out, the log of libevent. SIGHUP is blocked.
void process_prepare();

/// A reload that was asked for during start-up is served from here on.
void process_unblock_sighup();
