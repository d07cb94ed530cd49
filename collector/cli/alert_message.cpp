#include <nlohmann/json.hpp>

#include "cli/alerts.h"

namespace kaq {
namespace {

nlohmann::json usual_json(const UsualRange &usual) {
	if (usual.is_limit) {
		return {{"limit", usual.high}};
	}
	return {{"low", usual.low}, {"high", usual.high}};
}

/* As a part of a URL. */
std::string escaped(const std::string &text) {
	std::string result;
	for (char each : text) {
		auto byte = static_cast<unsigned char>(each);
		if (std::isalnum(byte) || each == '-' || each == '.' || each == '_') {
			result += each;
		} else {
			result += '%';
			result += "0123456789ABCDEF"[byte >> 4];
			result += "0123456789ABCDEF"[byte & 15];
		}
	}
	return result;
}

} // namespace

std::string to_json(const Alert &alert, const std::string &base_url) {
	nlohmann::json json = {{"text", alert.text},
						   {"application", alert.application},
						   {"transaction", alert.transaction},
						   {"metric", metric_name(alert.metric)},
						   {"value", alert.value},
						   {"usual", usual_json(alert.usual)},
						   {"since_ms", alert.since},
						   {"recovered", alert.is_over},
						   {"link", base_url + "/?app=" + escaped(alert.application) +
										"&txn=" + escaped(alert.transaction) +
										"&from=" + std::to_string(alert.since)}};
	return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace kaq
