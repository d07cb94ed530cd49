/* Services about the collector itself: its state, its language. */
#include "query/completion.h"
#include "query/parameters.h"
#include "query/service_table.h"

namespace kaq {
namespace {

nlohmann::json to_json(const StoreStatus &status) {
	nlohmann::json parts = nlohmann::json::array();
	for (const StoreStatus::Part &part : status.parts) {
		parts.push_back({{"begun_ms", part.begun},
						 {"bytes", part.bytes},
						 {"requests", part.requests},
						 {"documents", part.documents}});
	}
	return {{"parts", std::move(parts)},
			{"bytes", status.bytes},
			{"most_bytes", status.most_bytes},
			{"figure_bytes", status.figure_bytes},
			{"most_figure_bytes", status.most_figure_bytes},
			{"requests_put", status.requests_put},
			{"documents_kept", status.documents_kept},
			{"documents_left_out", status.documents_left_out},
			{"requests_lost", status.requests_lost},
			{"other_names", status.other_names},
			{"writing", status.is_writing},
			{"damages", status.damages}};
}

} // namespace

Answer list_services(ServiceContext &, const Question &) {
	nlohmann::json list = nlohmann::json::array();
	for (const Service &service : services()) {
		nlohmann::json parameters = nlohmann::json::array();
		for (const char *parameter : service.parameters) {
			bool is_required = parameter[0] == kRequired;
			parameters.push_back(
				{{"name", parameter + (is_required ? 1 : 0)}, {"required", is_required}});
		}
		list.push_back({{"method", service.method},
						{"path", service.path},
						{"parameters", std::move(parameters)},
						{"local", service.audience == Audience::kLocal}});
	}
	return json_answer({{"services", std::move(list)}});
}

Answer show_status(ServiceContext &context, const Question &) {
	nlohmann::json body = {{"now_ms", context.clock()}, {"store", to_json(context.store.status())}};
	if (context.daemon) {
		body["collector"] = context.daemon();
	}
	return json_answer(std::move(body));
}

Answer show_metrics(ServiceContext &context, const Question &) {
	std::optional<std::string> text = context.metrics ? context.metrics() : std::nullopt;
	if (!text) {
		throw ServiceMistake(503, "no collector runs here", "start one with 'kaq collect'");
	}
	Answer answer;
	answer.text = std::move(*text);
	answer.type = "text/plain; version=0.0.4; charset=utf-8";
	return answer;
}

Answer list_destinations(ServiceContext &context, const Question &) {
	if (!context.destinations) {
		throw ServiceMistake(404, "no collector runs here", "start one with 'kaq collect'");
	}
	return json_answer({{"now_ms", context.clock()}, {"destinations", context.destinations()}});
}

Answer resume_monitoring(ServiceContext &context, const Question &question) {
	if (!context.resume) {
		throw ServiceMistake(404, "no collector runs here", "start one with 'kaq collect'");
	}
	return json_answer({{"resumed", context.resume(text_of(question, "app"))}});
}

Answer complete(ServiceContext &, const Question &question) {
	const std::string &query = text_of(question, "q");
	auto length = static_cast<int64_t>(query.size());
	int64_t cursor = number_of(question, "cursor", length, 0, length);
	Completion completion = complete_query(query, static_cast<size_t>(cursor));
	nlohmann::json candidates = nlohmann::json::array();
	for (const Candidate &candidate : completion.candidates) {
		candidates.push_back({{"text", candidate.text}, {"help", candidate.help}});
	}
	return json_answer({{"begin", completion.begin},
						{"end", completion.end},
						{"candidates", std::move(candidates)}});
}

Answer make_login_link(ServiceContext &context, const Question &) {
	if (!context.login_link) {
		throw ServiceMistake(404, "no collector runs here", "start one with 'kaq collect'");
	}
	return json_answer({{"url", context.login_link()}});
}

} // namespace kaq
