#include "query/shared_file.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace kaq {
namespace {

using nlohmann::json;

/* Browsers read a piece at once: so many take some milliseconds. */
constexpr size_t kSpansOfAPiece = 2000;

/* Data stand in an element that no browser runs. Without "<" there is neither an end of it nor the
 * begin of a comment; JSON has it in strings alone. */
void add_element(std::string &out, const std::string &attribute, const json &data) {
	out += "<script type=\"application/json\" " + attribute + ">";
	for (char letter : data.dump(-1, ' ', false, json::error_handler_t::replace)) {
		if (letter == '<') {
			out += "\\u003c";
		} else {
			out += letter;
		}
	}
	out += "</script>\n";
}

/* Takes the spans out of a request. */
void add_spans(std::string &out, size_t list, json &request) {
	json spans = std::move(request["spans"]);
	request["spans"] = json::array();
	for (size_t from = 0; from < spans.size(); from += kSpansOfAPiece) {
		json piece = json::array();
		size_t to = std::min(spans.size(), from + kSpansOfAPiece);
		for (size_t i = from; i < to; i++) {
			piece.push_back(std::move(spans[i]));
		}
		add_element(out, "data-list=\"" + std::to_string(list) + "\"", piece);
	}
}

} // namespace

std::string to_shared_file(std::string_view page, SharedKind kind, json answer, int64_t now) {
	std::string data;
	if (kind == SharedKind::kRequest) {
		add_spans(data, 0, answer);
	} else {
		size_t list = 0;
		for (json &request : answer["requests"]) {
			if (request.contains("spans")) {
				add_spans(data, list++, request);
			}
		}
	}
	add_element(data, "id=\"kaq-answer\"",
				{{"kind", kind == SharedKind::kRequest ? "request" : "trace"},
				 {"written_ms", now},
				 {"answer", std::move(answer)}});
	std::string file(page);
	return file.replace(file.find(kSharedFileData), kSharedFileData.size(), data);
}

} // namespace kaq
