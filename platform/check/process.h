#pragma once

/// What a platform library must not leave in the process that forks.

/// Threads and descriptors that are there now, before the platform was called.
void check_process_begin();

/// None came: after a fork threads are gone, and every program that the daemon starts would get the
/// descriptors.
void check_process_end();

/// The process monitor takes a registration of this process.
void check_registration();
