/* The service that sets requests side by side. */
#include "analysis/compare.h"
#include "query/parameters.h"
#include "query/request_json.h"
#include "query/service_table.h"
#include "query/summary_json.h"

namespace kaq {
namespace {

/* Documents of which the typical request is made. */
constexpr size_t kTypicalOf = 50;

RequestRow row_of(ServiceContext &context, const Question &question, const char *parameter) {
	const std::string &id = text_of(question, parameter);
	std::optional<RequestRow> row = context.store.request(id);
	if (!row) {
		throw ServiceMistake(404, "there is no request " + kaq::quoted(id),
							 "'kaq find' lists requests", parameter);
	}
	return *row;
}

Transaction document_of(ServiceContext &context, const RequestRow &row, const char *parameter) {
	std::optional<Transaction> document = read_document(context.store, row.summary.id);
	if (!document) {
		throw ServiceMistake(404, "the document of request " + row.summary.id + " was not kept",
							 "'kaq find' with --json says of each request whether it was kept",
							 parameter);
	}
	return std::move(*document);
}

/* The newest requests of the same transaction, which went well, but for this one. */
std::vector<Transaction> others_like(ServiceContext &context, const RequestRow &row) {
	Search search;
	search.limit = 4 * kTypicalOf;
	search.filter.condition = {
		And{{{TextIs{TextField::kApplication, glob_of(row.summary.application)}},
			 {TextIs{TextField::kName, glob_of(row.summary.name)}},
			 {Not{std::make_shared<const Condition>(Condition{FlagIs{Flag::kFailed}})}}}}};
	std::vector<Transaction> others;
	for (const RequestRow &each : context.store.search(search).rows) {
		bool is_other = each.has_document && each.summary.id != row.summary.id;
		std::optional<Transaction> document =
			is_other ? read_document(context.store, each.summary.id) : std::nullopt;
		if (document) {
			others.push_back(std::move(*document));
		}
		if (others.size() == kTypicalOf) {
			break;
		}
	}
	return others;
}

nlohmann::json to_json(const Difference &difference) {
	return {{"name", difference.name},
			{"detail", difference.detail},
			{"path", difference.path},
			{"change", change_name(difference.change)},
			{"growth_ms", difference.growth},
			{"count_before", difference.count_before},
			{"count_after", difference.count_after},
			{"self_before_ms", difference.own_before},
			{"self_after_ms", difference.own_after},
			{"total_before_ms", difference.total_before},
			{"total_after_ms", difference.total_after}};
}

} // namespace

Answer compare_requests(ServiceContext &context, const Question &question) {
	bool is_typical = flag_of(question, "typical");
	if (is_typical == !text_of(question, "b").empty()) {
		throw ServiceMistake(400, "one of b and typical has to be given",
							 "b is the other request's id", "b");
	}
	RequestRow row = row_of(context, question, "a");
	Transaction document = document_of(context, row, "a");
	nlohmann::json body = {{"a", to_json(row)}};
	Profile one = profile_of(document);
	std::vector<Difference> differences;
	if (is_typical) {
		std::vector<Transaction> others = others_like(context, row);
		if (others.empty()) {
			throw ServiceMistake(
				404, "there is no other request of this transaction to compare with", "", "a");
		}
		std::vector<const Transaction *> pointers;
		pointers.reserve(others.size());
		for (const Transaction &each : others) {
			pointers.push_back(&each);
		}
		Profile typical = typical_profile(pointers);
		body["typical"] = {{"requests", others.size()}, {"duration_ms", typical.duration}};
		/* What it has more than usual has grown. */
		differences = compare(typical, one);
	} else {
		RequestRow other = row_of(context, question, "b");
		body["b"] = to_json(other);
		differences = compare(one, profile_of(document_of(context, other, "b")));
	}
	nlohmann::json list = nlohmann::json::array();
	for (size_t i = 0; i < differences.size() && i < limit_of(question, 100); i++) {
		list.push_back(to_json(differences[i]));
	}
	body["differences"] = std::move(list);
	return json_answer(std::move(body));
}

} // namespace kaq
