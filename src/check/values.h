#pragma once

#include <string>

#include "check/finding.h"
#include "config/settings.h"

/// Whether a value of the file fits its key.

void check_value(const check_place &place, const config_setting &row, const std::string &value,
                 check_findings *findings);

/// `key` is without "logger.".
void check_logger_value(const check_place &place, const std::string &key, const std::string &value,
                        check_findings *findings);

/// Says so when the text is no level of the log.
void check_level(const check_place &place, const std::string &name, const std::string &value,
                 check_findings *findings);
