#include <list>

#include "query/export.h"
#include "query/parameters.h"
#include "query/request_json.h"
#include "query/service_table.h"

namespace kaq {
namespace {

/* Of one trace; more are left out. */
constexpr size_t kMostDocuments = 100;

using Writer = std::string (*)(const std::vector<const Transaction *> &);

Writer writer_of(const Question &question) {
	const std::string &format = text_of(question, "format");
	if (format == "speedscope") {
		return to_speedscope;
	}
	if (format == "perfetto") {
		return to_trace_events;
	}
	if (format.empty() || format == "json") {
		return to_json_document;
	}
	throw ServiceMistake(400, "unknown format " + kaq::quoted(format),
						 "it is speedscope, perfetto or json", "format");
}

/* Of the request, or of all requests of the trace. */
std::vector<RequestRow> rows_of(ServiceContext &context, const std::string &id) {
	if (std::optional<RequestRow> row = context.store.request(id)) {
		return {*row};
	}
	std::optional<std::string> trace_id = context.store.trace_id(id);
	return trace_id ? context.store.trace(*trace_id) : std::vector<RequestRow>();
}

} // namespace

Answer export_requests(ServiceContext &context, const Question &question) {
	Writer write = writer_of(question);
	const std::string &id = text_of(question, "id");
	std::vector<RequestRow> rows = rows_of(context, id);
	if (rows.empty()) {
		throw ServiceMistake(404, "there is no request or trace " + kaq::quoted(id),
							 "'kaq find' lists requests", "id");
	}
	std::list<Transaction> documents;
	std::vector<const Transaction *> transactions;
	for (const RequestRow &row : rows) {
		if (documents.size() == kMostDocuments) {
			break;
		}
		if (std::optional<Transaction> document = read_document(context.store, row.summary.id)) {
			transactions.push_back(&documents.emplace_back(std::move(*document)));
		}
	}
	if (transactions.empty()) {
		throw ServiceMistake(404, "its document was not kept",
							 "more came than the store has room for", "id");
	}
	Answer answer;
	answer.text = write(transactions);
	return answer;
}

} // namespace kaq
