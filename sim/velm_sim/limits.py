"""Limits of the daemon that several of its peers meet: phones, local clients and their tests.

src/ has each one as a constant, docs/limits.md says where. A change there is a change here. Limits that
only a few tests meet are figures in those tests.
"""

from __future__ import annotations

PUSH_GAP = 1  # seconds before each push, also before the first one
CONNECTIONS = 64  # of phones and everybody else, at a time
CONNECTIONS_PER_HOST = 16  # of one address
LOCAL_CLIENTS = 32  # connected at a time
LOGIN_ATTEMPTS = 5  # wrong ones in a row; then logins are blocked
LOGIN_BLOCK = 60  # seconds from the first of them
LAN_COMMAND_TIME = 5  # seconds for the command that prints the LAN address
