#pragma once

/// `velmctl check`, which `velmd -t` becomes: the options are velmd's. Prints what is wrong, one line each.
/// The exit status is 0 when nothing is.
int velmctl_check(int argc, char *argv[]);
