#include "query/service.h"

#include <algorithm>
#include <cstring>

#include "query/fields.h"
#include "query/mistake_json.h"
#include "query/parameters.h"
#include "query/service_table.h"

namespace kaq {
namespace {

std::string_view name_of(const char *parameter) {
	return parameter[0] == kRequired ? parameter + 1 : parameter;
}

void check_parameters(const Service &service, const Question &question) {
	std::vector<std::string_view> known;
	for (const char *parameter : service.parameters) {
		known.push_back(name_of(parameter));
		if (parameter[0] == kRequired && text_of(question, parameter + 1).empty()) {
			throw ServiceMistake(400, std::string(known.back()) + " is missing", "",
								 std::string(known.back()));
		}
	}
	for (const auto &[name, value] : question.parameters) {
		if (std::find(known.begin(), known.end(), name) == known.end()) {
			std::string_view near = nearest(name, known);
			throw ServiceMistake(400, "unknown parameter " + kaq::quoted(name),
								 near.empty() ? "" : "did you mean " + std::string(near) + "?",
								 name.substr(0, 64));
		}
	}
}

} // namespace

const Service *find_service(const std::string &method, const std::string &path) {
	for (const Service &service : services()) {
		if (method == service.method && path == service.path) {
			return &service;
		}
	}
	return nullptr;
}

Answer answer_of(const Service &service, ServiceContext &context, const Question &question) {
	try {
		check_parameters(service, question);
		return service.answer(context, question);
	} catch (const ServiceMistake &mistake) {
		return mistake.answer();
	} catch (const StoreError &error) {
		return error_answer(500, error.what(), "'kaq doctor' looks at the store");
	}
}

Answer error_answer(int status, const std::string &message, const std::string &hint,
					const std::string &parameter) {
	return ServiceMistake(status, message, hint, parameter).answer();
}

Answer ServiceMistake::answer() const {
	nlohmann::json error = {{"message", what()}};
	if (!hint_.empty()) {
		error["hint"] = hint_;
	}
	if (!parameter_.empty()) {
		error["parameter"] = parameter_;
	}
	if (!mistakes_.empty()) {
		error.update(to_json(mistakes_));
	}
	Answer answer;
	answer.status = status_;
	answer.body = {{"error", std::move(error)}};
	return answer;
}

Answer json_answer(nlohmann::json body) {
	Answer answer;
	answer.body = std::move(body);
	return answer;
}

std::string text_of(const Answer &answer) {
	return answer.text.empty()
			   ? answer.body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
			   : answer.text;
}

} // namespace kaq
