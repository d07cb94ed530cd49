/* The functions behind the table of services. */
#pragma once

#include "query/service.h"

namespace kaq {

/* request_services.cpp */
Answer find_requests(ServiceContext &context, const Question &question);
Answer show_request(ServiceContext &context, const Question &question);
Answer show_trace(ServiceContext &context, const Question &question);
Answer forget_requests(ServiceContext &context, const Question &question);
Answer pin_request(ServiceContext &context, const Question &question);
Answer unpin_request(ServiceContext &context, const Question &question);

/* top_services.cpp */
Answer top_transactions(ServiceContext &context, const Question &question);

/* application_services.cpp */
Answer list_applications(ServiceContext &context, const Question &question);
Answer list_asked_hosts(ServiceContext &context, const Question &question);

/* curve_services.cpp */
Answer curve_of(ServiceContext &context, const Question &question);
Answer durations_of(ServiceContext &context, const Question &question);

/* profile_service.cpp */
Answer profile_requests(ServiceContext &context, const Question &question);

/* group_services.cpp */
Answer list_statements(ServiceContext &context, const Question &question);
Answer list_hosts(ServiceContext &context, const Question &question);
Answer list_failures(ServiceContext &context, const Question &question);
Answer list_findings(ServiceContext &context, const Question &question);

/* compare_services.cpp */
Answer compare_requests(ServiceContext &context, const Question &question);

/* export_service.cpp */
Answer export_requests(ServiceContext &context, const Question &question);

/* collector_services.cpp */
Answer add_mark(ServiceContext &context, const Question &question);
Answer remove_mark(ServiceContext &context, const Question &question);
Answer list_marks(ServiceContext &context, const Question &question);
Answer list_services(ServiceContext &context, const Question &question);
Answer show_status(ServiceContext &context, const Question &question);
Answer list_destinations(ServiceContext &context, const Question &question);
Answer show_metrics(ServiceContext &context, const Question &question);
Answer resume_monitoring(ServiceContext &context, const Question &question);
Answer complete(ServiceContext &context, const Question &question);
Answer make_login_link(ServiceContext &context, const Question &question);

} // namespace kaq
