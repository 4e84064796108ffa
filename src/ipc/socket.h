#pragma once

#include <sys/socket.h>

#include "handles/fd.h"

/// The sockets of the location-policy IPC: AF_UNIX, SOCK_SEQPACKET, non-blocking. On failure they
/// return none, with the reason in errno.

/// sun_path less its terminator.
inline constexpr unsigned velm_ipc_path_limit = 107;

/// How many clients wait to be accepted.
inline constexpr int velm_ipc_backlog = 5;

/// Makes the directory and those above it, mode 0700, like mkdir -p. A trailing "/" is ignored.
/// False for a path that is empty or 256 characters or longer, and where something else than a
/// directory stands in the way.
[[nodiscard]] bool velm_ipc_socket_create_dir(const char *path);

/// A socket that listens at the path, which others than the owner and the group cannot use. A socket
/// that was there before is removed and the parent directory made. What is no socket, a link included,
/// stays, with a line in the log, and the call fails: it is somebody's file.
/// Of the IPC's own kind it is not close-on-exec, as its interface wants: the command that prints the LAN
/// address inherits it, for its 5 s at most. All other descriptors of the process are close-on-exec.
[[nodiscard]] unique_fd velm_ipc_socket_listen(const char *path, int kind = SOCK_SEQPACKET,
                                               int backlog = velm_ipc_backlog);

/// A close-on-exec socket connected to a server's path.
[[nodiscard]] unique_fd velm_ipc_socket_connect(const char *path);
