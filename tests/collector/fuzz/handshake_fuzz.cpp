/*
 * Requests of the handshake port: whatever comes, there is an answer that is valid JSON, and what
 * stands before the port cannot be changed by what the port says.
 */
#include <cstdint>
#include <cstdlib>
#include <string>

#include <nlohmann/json.hpp>

#include "ingest/handshake_answer.h"
#include "ingest/handshake_request.h"

static void require(bool condition) {
	if (!condition) {
		abort();
	}
}

static void answer_to(const kaq::HandshakeRequest &request) {
	kaq::HandshakeAnswer answer;
	answer.instance_id = kaq::instance_id_of(request);
	answer.application_id = kaq::application_id_of(request.application);
	nlohmann::json json = nlohmann::json::parse(to_json(answer), nullptr, false);
	require(json.is_object() && json["instance.status"] == 920);
	require(json["app.id"].get<std::string>().find(';') == std::string::npos);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	std::string text(reinterpret_cast<const char *>(data), size);
	answer_to(kaq::read_handshake_request(text));
	std::string port = text.substr(0, 9);
	kaq::HandshakeRequest request = kaq::read_handshake_request(
		R"({"connect_info":{"agent_info":{"application.name":"Shop","hostname":"web1","port":)" +
		port +
		R"(,"host.type":"","rum.autoinjection":false},"agent_specific_info":)"
		R"({"application.group.name":""}},"misc_info":{"txn.name":"\/cart"}})");
	require(request.application == "Shop" && request.host == "web1");
	require(request.transaction == "/cart");
	answer_to(request);
	return 0;
}
