#include "store/request_view.h"

#include <algorithm>

#include "analysis/http_call.h"

namespace kaq {

int64_t SummaryView::start() const {
	return summary_.start;
}

int64_t SummaryView::number(NumberField field) const {
	switch (field) {
	case NumberField::kStatus:
		return summary_.status;
	case NumberField::kDuration:
		return summary_.duration;
	case NumberField::kCpu:
		return summary_.cpu;
	case NumberField::kMemory:
		return summary_.memory;
	case NumberField::kQueries:
		return summary_.queries;
	case NumberField::kCalls:
		return summary_.calls;
	case NumberField::kSpans:
		return summary_.spans;
	case NumberField::kErrors:
		return summary_.failures;
	case NumberField::kDatabaseTime:
		return summary_.query_time;
	case NumberField::kExternalTime:
		return summary_.external_time;
	}
	return 0;
}

bool SummaryView::has(Flag flag) const {
	switch (flag) {
	case Flag::kFailed:
		return summary_.is_failed;
	case Flag::kWeb:
		return summary_.is_web;
	case Flag::kCommandLine:
		return !summary_.is_web;
	}
	return false;
}

bool SummaryView::has_text(TextField field, const TextTest &test) const {
	switch (field) {
	case TextField::kApplication:
		return test(summary_.application);
	case TextField::kName:
		return test(summary_.name);
	case TextField::kPath:
		return test(summary_.path);
	case TextField::kMethod:
		return test(summary_.method);
	case TextField::kTraceId:
		return test(summary_.trace_id);
	case TextField::kId:
		return test(summary_.id);
	case TextField::kHost:
	case TextField::kVerdict:
	case TextField::kCall:
		break;
	}
	return false;
}

bool SummaryView::has_text(WordField, const TextTest &) const {
	return false;
}

bool TransactionView::has_text(TextField field, const TextTest &test) const {
	switch (field) {
	case TextField::kHost:
		return test(transaction_.host);
	case TextField::kVerdict:
		return std::any_of(verdicts_.begin(), verdicts_.end(), test);
	case TextField::kCall:
		return std::any_of(
			transaction_.spans.begin(), transaction_.spans.end(),
			[&test](const Span &span) { return is_http_call(span) && test(host_of(span.host)); });
	default:
		return SummaryView::has_text(field, test);
	}
}

bool TransactionView::has_text(WordField field, const TextTest &test) const {
	return std::any_of(transaction_.spans.begin(), transaction_.spans.end(),
					   [field, &test](const Span &span) {
						   switch (field) {
						   case WordField::kStatement:
							   return test(span.query);
						   case WordField::kFunction:
							   return test(span.name);
						   case WordField::kError:
							   return std::any_of(span.failures.begin(), span.failures.end(),
												  [&test](const Failure &failure) {
													  return test(error_text(failure));
												  });
						   case WordField::kAnywhere:
							   break;
						   }
						   return false;
					   });
}

std::string error_text(const Failure &failure) {
	std::string text(failure.type);
	text += ": ";
	text += failure.message;
	return text;
}

} // namespace kaq
