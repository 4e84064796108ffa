#include "tools/check/command.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "check/check.h"
#include "process/command_line.h"
#include "tools/control/place.h"

int velmctl_check(int argc, char *argv[])
{
    const velm_command_line given = velm_command_line_parse(argc, argv);
    const std::string path = given.config_path.value_or(control_default_config);
    const std::vector<check_finding> findings = check_configuration(given, path);
    for (const check_finding &finding : findings) {
        std::puts(check_finding_text(finding).c_str());
    }
    if (!check_is_good(findings)) {
        return EXIT_FAILURE;
    }
    std::puts("configuration is good");
    return EXIT_SUCCESS;
}
