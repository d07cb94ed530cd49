/* The checks behind the table, by subject; no state. */
#pragma once

#include "cli/doctor.h"

namespace kaq {

/* doctor_chain.cpp: from PHP's question to the store. */
CheckResults check_configuration(const DoctorContext &context);
CheckResults check_collector(const DoctorContext &context);
CheckResults check_ports(const DoctorContext &context);
CheckResults check_handshake(const DoctorContext &context);
CheckResults check_payload(const DoctorContext &context);
CheckResults check_losses(const DoctorContext &context);

/* doctor_php.cpp: each PHP of the host. */
CheckResults check_php(const DoctorContext &context);

/* doctor_host.cpp: the host that PHP and the collector share. */
CheckResults check_account_key(const DoctorContext &context);
CheckResults check_stacks(const DoctorContext &context);
CheckResults check_crashes(const DoctorContext &context);
CheckResults check_suspensions(const DoctorContext &context);
CheckResults check_names(const DoctorContext &context);
CheckResults check_clock(const DoctorContext &context);
CheckResults check_disk(const DoctorContext &context);

/* php_installations.cpp */
std::vector<PhpInstallation> find_php(const std::string &root, bool is_superuser);
/* What phpinfo() prints, as text or as a page; of two values the one that holds. */
std::map<std::string, std::string> read_phpinfo(std::string_view text);

/* The files of these directories' entries that match a glob, sorted. */
std::vector<std::string> matching_files(const std::string &root, const std::string &pattern);

} // namespace kaq
