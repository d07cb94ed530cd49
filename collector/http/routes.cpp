#include "http/routes.h"

#include "http/access.h"
#include "http/viewer_pages.h"
#include "query/parameters.h"
#include "query/parser.h"
#include "util/query_string.h"
#include "util/system_time.h"

namespace kaq {
namespace {

constexpr const char *kText = "text/plain";
constexpr std::string_view kInterface = "/api/";
constexpr std::string_view kDoctorPath = "/api/v1/doctor";
constexpr const char *kCookieAttributes = "; Path=/; HttpOnly; SameSite=Strict; Max-Age=";

HttpAnswer to_http(const Answer &answer) {
	HttpAnswer http{answer.status, answer.text.empty() ? "application/json" : answer.type,
					text_of(answer)};
	if (!answer.file.empty()) {
		http.headers.push_back(
			{"Content-Disposition", "attachment; filename=\"" + answer.file + "\""});
	}
	return http;
}

HttpAnswer live(const HttpRequest &request) {
	ParseSettings settings;
	settings.is_live = true;
	std::string query = form_decoded(query_parameter(request.query, "q"));
	auto filter = parse_query(query, settings);
	HttpAnswer answer;
	if (filter) {
		answer.is_live = true;
		answer.live_filter = std::move(*filter);
	} else {
		const Mistake &first = filter.error().front();
		return to_http(ServiceMistake(400, first.text, first.hint, "q", filter.error()).answer());
	}
	return answer;
}

HttpAnswer unknown(const HttpRequest &request) {
	bool is_interface = request.path.compare(0, kInterface.size(), kInterface) == 0;
	return is_interface ? to_http(error_answer(404, "there is no such route",
											   "docs/openapi.yaml describes those that there are"))
						: HttpAnswer{404, kText, "nothing here\n"};
}

/* How the path could have been asked; null if it is none of the services'. */
const char *other_method(const std::string &path) {
	for (const char *method : {"GET", "POST"}) {
		if (find_service(method, path)) {
			return method;
		}
	}
	return nullptr;
}

} // namespace

HttpAnswer Routes::answer(const HttpRequest &request) {
	std::string method = request.method == "HEAD" ? "GET" : request.method;
	const Service *service = find_service(method, request.path);
	if (service && (service->audience == Audience::kEverybody || request.is_local)) {
		return serve(*service, request);
	}
	if (request.path == kDoctorPath && doctor_.show) {
		return ask_doctor(request);
	}
	const char *other = service ? nullptr : other_method(request.path);
	if (other || (method != "GET" && !service)) {
		HttpAnswer answer = to_http(error_answer(405, "this is for another method"));
		answer.headers.push_back({"Allow", other ? other : "GET"});
		return answer;
	}
	if (request.path == "/healthz") {
		return {200, kText, "ok\n"};
	}
	if (request.path == kLoginPath) {
		return log_in(request);
	}
	if (request.path == "/api/v1/live") {
		return live(request);
	}
	std::optional<HttpAnswer> page =
		is_viewer_path(request.path) ? viewer_answer(request) : std::nullopt;
	return page ? std::move(*page) : unknown(request);
}

HttpAnswer Routes::log_in(const HttpRequest &request) {
	std::string code = form_decoded(query_parameter(request.query, "code"));
	if (!codes_.take(code) && !request.is_known) {
		return {401, kText,
				"this link was used before, or is too old: 'kaq open' prints another\n"};
	}
	HttpAnswer answer{303, kText, "logged in\n"};
	std::string session = sessions_.begin(system_time());
	answer.headers.push_back(
		{"Set-Cookie", session_cookie(request.port) + "=" + session + kCookieAttributes +
						   std::to_string(std::chrono::seconds(Sessions::kLifetime).count())});
	answer.headers.push_back({"Location", "/"});
	return answer;
}

/* Anybody may see its reports who may see the rest; only this host's verbs bring one. */
HttpAnswer Routes::ask_doctor(const HttpRequest &request) {
	bool is_asked = request.method == "GET" || request.method == "HEAD";
	HttpAnswer answer;
	if (is_asked) {
		answer.work = [this] { return to_http(doctor_.show()); };
	} else if (request.method == "POST" && request.is_local) {
		std::map<std::string, std::string> form = form_parameters(request.form);
		answer.work = [this, report = form["report"]] { return to_http(doctor_.keep(report)); };
	} else {
		answer = to_http(error_answer(405, "this is for another method"));
		answer.headers.push_back({"Allow", "GET"});
	}
	return answer;
}

HttpAnswer Routes::serve(const Service &service, const HttpRequest &request) {
	Question question;
	question.parameters = form_parameters(request.query);
	question.parameters.merge(form_parameters(request.form));
	HttpAnswer answer;
	answer.work = [this, &service, question = std::move(question)] {
		return to_http(answer_of(service, context_, question));
	};
	return answer;
}

} // namespace kaq
