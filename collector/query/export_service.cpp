#include "query/export.h"
#include "query/parameters.h"
#include "query/service_table.h"
#include "query/shared_file.h"
#include "query/trace_documents.h"

namespace kaq {
namespace {

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
						 "it is html, speedscope, perfetto or json", "format");
}

/* Of the request, or of all requests of the trace. */
std::vector<RequestRow> rows_of(ServiceContext &context, const std::string &id) {
	if (std::optional<RequestRow> row = context.store.request(id)) {
		return {*row};
	}
	std::optional<std::string> trace_id = context.store.trace_id(id);
	return trace_id ? context.store.trace(*trace_id) : std::vector<RequestRow>();
}

/* Another member of a JSON object, where there is anything to say. */
void say(std::string &object, const char *name, size_t count) {
	if (count > 0) {
		object.insert(object.rfind('}'), std::string(",\"") + name + "\":" + std::to_string(count));
	}
}

ServiceMistake not_kept() {
	return {404, "its document was not kept", "more came than the store has room for", "id"};
}

/* Ids come from outside: of such a one what may stand in a file's name. */
std::string file_name(const char *kind, const std::string &id) {
	std::string name = std::string(kind) + "-";
	for (char letter : id.substr(0, 32)) {
		bool is_plain = (letter >= '0' && letter <= '9') || (letter >= 'a' && letter <= 'z') ||
						(letter >= 'A' && letter <= 'Z');
		name += is_plain ? letter : '_';
	}
	return name + ".html";
}

Answer shared_file(ServiceContext &context, const Question &question, const RequestRow &row) {
	if (shared_file_page().empty()) {
		throw ServiceMistake(501, "this collector was built without its pages",
							 "build it where npm is at hand, or take another format", "format");
	}
	bool is_request = context.store.request(text_of(question, "id")).has_value();
	nlohmann::json body =
		is_request ? show_request(context, question).body : show_trace(context, question).body;
	bool is_kept = is_request ? body.contains("spans") : body["requests"][0].contains("spans");
	if (!is_kept) {
		throw not_kept();
	}
	Answer answer;
	answer.text =
		to_shared_file(shared_file_page(), is_request ? SharedKind::kRequest : SharedKind::kTrace,
					   std::move(body), context.clock());
	answer.type = "text/html; charset=utf-8";
	answer.file = is_request ? file_name("request", row.summary.id)
							 : file_name("trace", row.summary.trace_id);
	return answer;
}

} // namespace

Answer export_requests(ServiceContext &context, const Question &question) {
	bool is_file = text_of(question, "format") == "html";
	Writer write = is_file ? nullptr : writer_of(question);
	const std::string &id = text_of(question, "id");
	std::vector<RequestRow> rows = rows_of(context, id);
	if (rows.empty()) {
		throw ServiceMistake(404, "there is no request or trace " + kaq::quoted(id),
							 "'kaq find' lists requests", "id");
	}
	if (is_file) {
		return shared_file(context, question, rows.front());
	}
	TraceDocuments found = read_documents(context.store, rows);
	std::vector<const Transaction *> transactions = found.transactions();
	if (transactions.empty()) {
		throw not_kept();
	}
	Answer answer;
	answer.text = write(transactions);
	say(answer.text, "not_kept", found.not_kept.size());
	say(answer.text, "left_out", found.left_out.size());
	return answer;
}

} // namespace kaq
