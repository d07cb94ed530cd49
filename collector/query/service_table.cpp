#include "query/service_table.h"

namespace kaq {

const std::vector<Service> &services() {
	static const std::vector<Service> kServices = {
		{"GET", "/api/v1/requests", {"q", "from", "to", "app", "order", "limit"}, find_requests},
		{"GET", "/api/v1/request", {"!id"}, show_request},
		{"GET", "/api/v1/trace", {"!id"}, show_trace},
		{"GET", "/api/v1/compare", {"!a", "b", "typical", "limit"}, compare_requests},
		{"GET", "/api/v1/export", {"!id", "format"}, export_requests},
		{"POST", "/api/v1/pin", {"!id"}, pin_request},
		{"POST", "/api/v1/unpin", {"!id"}, unpin_request},
		{"POST", "/api/v1/forget", {"!q", "from", "to", "app"}, forget_requests},
		{"GET",
		 "/api/v1/top",
		 {"from", "to", "app", "txn", "q", "host", "sort", "limit", "apdex", "step"},
		 top_transactions},
		{"GET",
		 "/api/v1/queries",
		 {"from", "to", "app", "txn", "sort", "limit", "step"},
		 list_statements},
		{"GET",
		 "/api/v1/errors",
		 {"from", "to", "app", "txn", "sort", "limit", "step"},
		 list_failures},
		{"GET", "/api/v1/calls", {"from", "to", "app", "txn", "sort", "limit", "step"}, list_hosts},
		{"GET",
		 "/api/v1/curve",
		 {"kind", "from", "to", "app", "txn", "text", "q", "host", "apdex", "step"},
		 curve_of},
		{"GET", "/api/v1/durations", {"from", "to", "app", "txn", "q", "host"}, durations_of},
		{"GET",
		 "/api/v1/applications",
		 {"from", "to", "app", "txn", "q", "host", "limit", "apdex", "step"},
		 list_applications},
		{"GET", "/api/v1/hosts", {"from", "to", "app", "limit"}, list_asked_hosts},
		{"GET",
		 "/api/v1/profile",
		 {"from", "to", "app", "txn", "q", "host", "limit"},
		 profile_requests},
		{"GET",
		 "/api/v1/findings",
		 {"from", "to", "app", "txn", "q", "host", "sort", "limit"},
		 list_findings},
		{"GET", "/api/v1/marks", {"from", "to", "app", "limit"}, list_marks},
		{"POST", "/api/v1/mark", {"!text", "app", "time"}, add_mark},
		{"POST", "/api/v1/unmark", {"!id"}, remove_mark},
		{"POST", "/api/v1/resume", {"app"}, resume_monitoring},
		{"GET", "/api/v1/completions", {"q", "cursor"}, complete},
		{"GET", "/api/v1/services", {}, list_services},
		{"GET", "/api/v1/status", {}, show_status},
		{"GET", "/metrics", {}, show_metrics},
		{"POST", "/api/v1/login-link", {}, make_login_link, Audience::kLocal},
	};
	return kServices;
}

} // namespace kaq
