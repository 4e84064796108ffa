#pragma once

#include "tools/doctor/report.h"
#include "tools/doctor/subject.h"

/// What the doctor looks at, one after another. Each adds a line or more.

void doctor_check_configuration(const doctor_subject &subject, doctor_report &report);
void doctor_check_modes(const doctor_subject &subject, doctor_report &report);
void doctor_check_certificate(const doctor_subject &subject, doctor_report &report);
void doctor_check_clock(const doctor_subject &subject, doctor_report &report);
void doctor_check_nvram(const doctor_subject &subject, doctor_report &report);
void doctor_check_network(const doctor_subject &subject, doctor_report &report);
void doctor_check_log(const doctor_subject &subject, doctor_report &report);
void doctor_check_lan(const doctor_subject &subject, doctor_report &report);
void doctor_check_bssids(const doctor_subject &subject, doctor_report &report);
void doctor_check_accounts(const doctor_subject &subject, doctor_report &report);
void doctor_check_daemon(const doctor_subject &subject, doctor_report &report);
void doctor_check_ports(const doctor_subject &subject, doctor_report &report);
void doctor_check_info(const doctor_subject &subject, doctor_report &report);
void doctor_check_search(const doctor_subject &subject, doctor_report &report);
void doctor_check_cloud(const doctor_subject &subject, doctor_report &report);
