/* Services that find requests and say what becomes of them. */
#include "query/parameters.h"
#include "query/request_json.h"
#include "query/service_table.h"
#include "query/summary_json.h"
#include "query/trace_json.h"

namespace kaq {
namespace {

constexpr size_t kUsualRows = 100;

ServiceMistake unknown_request(const std::string &id) {
	return {404, "there is no request or trace " + kaq::quoted(id),
			"ids are whole or their first characters, at least 4; 'kaq find' lists requests", "id"};
}

Search::Order order_of(const Question &question) {
	const std::string &order = text_of(question, "order");
	if (order.empty() || order == "newest") {
		return Search::Order::kNewest;
	}
	if (order != "slowest") {
		throw ServiceMistake(400, "unknown order " + kaq::quoted(order), "it is newest or slowest",
							 "order");
	}
	return Search::Order::kSlowest;
}

Answer changed(bool is_found, const std::string &id) {
	if (!is_found) {
		throw unknown_request(id);
	}
	return json_answer({{"id", id}});
}

} // namespace

Answer find_requests(ServiceContext &context, const Question &question) {
	Search search;
	search.filter = filter_of(context, question);
	search.order = order_of(question);
	search.limit = limit_of(question, kUsualRows);
	Found found = context.store.search(search);
	nlohmann::json requests = nlohmann::json::array();
	for (const RequestRow &row : found.rows) {
		requests.push_back(to_json(row));
	}
	return json_answer({{"requests", std::move(requests)},
						{"more", found.has_more},
						{"partial", found.is_partial},
						{"damages", found.damages},
						{"looked_at", found.looked_at}});
}

Answer show_request(ServiceContext &context, const Question &question) {
	const std::string &id = text_of(question, "id");
	std::optional<RequestRow> row = context.store.request(id);
	if (!row) {
		throw unknown_request(id);
	}
	nlohmann::json body = {
		{"request", to_json(*row)},
		{"requests_of_trace", context.store.trace(row->summary.trace_id).size()}};
	if (std::optional<Transaction> transaction = read_document(context.store, row->summary.id)) {
		body.update(details_json(*transaction, row->serving));
		body["spans"] = spans_json(*transaction);
		body["critical_path"] = critical_path_json(*transaction);
	}
	return json_answer(std::move(body));
}

Answer show_trace(ServiceContext &context, const Question &question) {
	const std::string &id = text_of(question, "id");
	std::optional<std::string> trace_id = context.store.trace_id(id);
	if (!trace_id) {
		std::optional<RequestRow> row = context.store.request(id);
		if (!row) {
			throw unknown_request(id);
		}
		trace_id = row->summary.trace_id;
	}
	std::vector<RequestRow> rows = context.store.trace(*trace_id);
	nlohmann::json body = {{"trace_id", *trace_id}};
	body.update(trace_json(context.store, rows));
	return json_answer(std::move(body));
}

Answer pin_request(ServiceContext &context, const Question &question) {
	const std::string &id = text_of(question, "id");
	return changed(context.store.pin(id), id);
}

Answer unpin_request(ServiceContext &context, const Question &question) {
	const std::string &id = text_of(question, "id");
	bool was_pinned = context.store.unpin(id);
	if (!was_pinned && (context.store.request(id) || context.store.trace_id(id))) {
		throw ServiceMistake(404, kaq::quoted(id) + " is not pinned", "", "id");
	}
	return changed(was_pinned, id);
}

Answer forget_requests(ServiceContext &context, const Question &question) {
	return json_answer({{"forgotten", context.store.forget(filter_of(context, question))}});
}

} // namespace kaq
