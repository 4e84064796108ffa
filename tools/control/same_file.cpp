#include "tools/control/same_file.h"

#include <sys/stat.h>

bool control_is_same_file(const std::string &one, const std::string &other)
{
    struct stat first {};
    struct stat second {};
    return one == other || (stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
                            first.st_dev == second.st_dev && first.st_ino == second.st_ino);
}
