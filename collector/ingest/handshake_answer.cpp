#include "ingest/handshake_answer.h"

#include <xxhash.h>

#include <cctype>
#include <cstdio>

namespace kaq {
namespace {

constexpr int kMonitored = 920;
constexpr int kNotMonitored = 910;
constexpr size_t kLongestSpelling = 32;

std::string hex_hash(std::string_view text, int digits) {
	char hex[17];
	snprintf(hex, sizeof hex, "%016llx",
			 static_cast<unsigned long long>(XXH3_64bits(text.data(), text.size())));
	return std::string(hex, static_cast<size_t>(digits));
}

void append_string(std::string &json, std::string_view text) {
	json += '"';
	for (char character : text) {
		if (character == '"' || character == '\\') {
			json += '\\';
			json += character;
		} else if (static_cast<unsigned char>(character) < ' ') {
			char escape[7];
			snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(character));
			json += escape;
		} else {
			json += character;
		}
	}
	json += '"';
}

void append_member(std::string &json, std::string_view name, std::string_view text) {
	if (!text.empty()) {
		json += ",\"";
		json += name;
		json += "\":";
		append_string(json, text);
	}
}

} // namespace

std::string instance_id_of(const HandshakeRequest &request) {
	std::string key = request.host;
	key.append(1, '\0').append(request.application).append(1, '\0').append(request.port);
	return hex_hash(key, 16);
}

std::string application_id_of(std::string_view application) {
	std::string spelled;
	for (char character : application.substr(0, kLongestSpelling)) {
		if (isalnum(static_cast<unsigned char>(character))) {
			spelled += static_cast<char>(tolower(static_cast<unsigned char>(character)));
		} else if (!spelled.empty() && spelled.back() != '-') {
			spelled += '-';
		}
	}
	if (spelled.empty() || spelled.back() != '-') {
		spelled += '-';
	}
	return spelled + hex_hash(application, 8);
}

std::string to_json(const HandshakeAnswer &answer) {
	std::string json = "{\"instance.status\":";
	json += std::to_string(answer.is_monitored ? kMonitored : kNotMonitored);
	json += ",\"transaction.trace.sql.stacktrace.threshold\":";
	json += std::to_string(answer.sql_stack_seconds);
	append_member(json, "instance.id", answer.instance_id);
	append_member(json, "app.id", answer.application_id);
	append_member(json, "normalised.txn.name", answer.transaction);
	append_member(json, "webtransaction.rum.snippet", answer.snippet);
	return json + "}";
}

} // namespace kaq
