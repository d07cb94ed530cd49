/* What the extension asks, and what it is answered. */
#include <gtest/gtest.h>

#include "ingest/handshake_answer.h"
#include "ingest/handshake_request.h"

using kaq::HandshakeAnswer;
using kaq::HandshakeRequest;
using kaq::read_handshake_request;

/* A request as the extension writes it. */
static std::string request_with(const std::string &port, const std::string &uri) {
	return R"({"connect_info":{"agent_info":{"agent.version":"4.9","agent.version.info":"4.9.2.0",)"
		   R"("application.name":"Shop","application.type":"PHP","fqdn":"web1.example",)"
		   R"("hostname":"web1","port":)" +
		   port +
		   R"(,"host.type":"vm","rum.autoinjection":true},"agent_specific_info":)"
		   R"({"application.group.name":"front"},"environment":{"MachineName":"web1","OS":"Linux",)"
		   R"("OSArch":"x86_64","OSVersion":"6.1","IP": ["10.0.0.1"]}},"misc_info":{"txn.name":")" +
		   uri + "\"}}\n";
}

TEST(HandshakeRequest, MembersAreRead) {
	HandshakeRequest request = read_handshake_request(request_with("443", "\\/cart\\/7"));
	EXPECT_EQ("4.9.2.0", request.version);
	EXPECT_EQ("Shop", request.application);
	EXPECT_EQ("front", request.group);
	EXPECT_EQ("web1", request.host);
	EXPECT_EQ("443", request.port);
	EXPECT_EQ("/cart/7", request.transaction);
	EXPECT_TRUE(request.takes_snippet);
}

/* A visitor may have chosen the port's text. */
TEST(HandshakeRequest, PortCannotSpeakForWhatStandsBeforeIt) {
	for (const char *port :
		 {"1,\"a\":\"", "\"", "{", "}}", "0},\"x\":{", "\\", "\"\"\"\"\"\"\"\"\""}) {
		HandshakeRequest request = read_handshake_request(request_with(port, "\\/cart"));
		EXPECT_EQ("Shop", request.application) << port;
		EXPECT_EQ("web1", request.host) << port;
		EXPECT_EQ(port, request.port) << port;
		EXPECT_EQ("/cart", request.transaction) << port;
	}
}

TEST(HandshakeRequest, PathCannotSpeakForAMemberBeforeIt) {
	HandshakeRequest request = read_handshake_request(
		request_with("80", R"(\/x\",\"application.name\":\"Other\",\"hostname\":\"evil)"));
	EXPECT_EQ("Shop", request.application);
	EXPECT_EQ("web1", request.host);
	EXPECT_EQ(R"(/x","application.name":"Other","hostname":"evil)", request.transaction);
}

TEST(HandshakeRequest, EscapesAreUndone) {
	HandshakeRequest request =
		read_handshake_request(request_with("80", R"(a\"b\\c\/d\be\ff\ng\rh\ti\u0001j\u001f)"));
	EXPECT_EQ("a\"b\\c/d\be\ff\ng\rh\ti\1j\x1f", request.transaction);
}

TEST(HandshakeRequest, GarbageHasNoMembers) {
	for (const char *text : {"", "\n", "GET / HTTP/1.1\r\n", "{}", "{\"connect_info\":",
							 "\"hostname\":", "\"hostname\":5", "\"port\":"}) {
		HandshakeRequest request = read_handshake_request(text);
		EXPECT_EQ("", request.application) << text;
		EXPECT_EQ("", request.host) << text;
		EXPECT_FALSE(request.takes_snippet) << text;
	}
}

TEST(HandshakeRequest, CutTextsEndWithTheRequest) {
	EXPECT_EQ("ab", read_handshake_request("\"hostname\":\"ab").host);
	EXPECT_EQ("ab\\", read_handshake_request("\"hostname\":\"ab\\").host);
	EXPECT_EQ("abu00", read_handshake_request("\"hostname\":\"ab\\u00").host);
	EXPECT_EQ("123456789", read_handshake_request("\"port\":1234567890").port);
}

TEST(InstanceId, IsTheSameForTheSamePlace) {
	HandshakeRequest request;
	request.host = "web1";
	request.application = "Shop";
	request.port = "443";
	std::string id = instance_id_of(request);
	EXPECT_EQ(16u, id.size());
	EXPECT_EQ(id, instance_id_of(request));
	HandshakeRequest other = request;
	other.port = "80";
	EXPECT_NE(id, instance_id_of(other));
	other = request;
	other.host = "web1S";
	other.application = "hop";
	EXPECT_NE(id, instance_id_of(other));
}

TEST(ApplicationId, TravelsInAHeader) {
	for (const char *name : {"Shop", "My Shop; v=2", "\xC3\xA9t\xC3\xA9", "", ";;;", "a\r\nb"}) {
		std::string id = kaq::application_id_of(name);
		EXPECT_EQ(std::string::npos, id.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-"))
			<< id;
		EXPECT_GE(id.size(), 9u);
	}
	EXPECT_EQ("my-shop-v-2-", kaq::application_id_of("My Shop; v=2").substr(0, 12));
	EXPECT_NE(kaq::application_id_of("My Shop"), kaq::application_id_of("my-shop"));
}

TEST(Answer, SaysWhatTheExtensionReads) {
	HandshakeAnswer answer;
	answer.instance_id = "i1";
	answer.application_id = "shop-1";
	answer.transaction = "/cart/*";
	answer.sql_stack_seconds = 2;
	answer.snippet = "<script src=\"/a.js\">\n</script>";
	EXPECT_EQ(R"({"instance.status":920,"transaction.trace.sql.stacktrace.threshold":2,)"
			  R"("instance.id":"i1","app.id":"shop-1","normalised.txn.name":"/cart/*",)"
			  R"("webtransaction.rum.snippet":"<script src=\"/a.js\">\u000a</script>"})",
			  to_json(answer));
}

TEST(Answer, OfAnApplicationThatIsNotMonitored) {
	HandshakeAnswer answer;
	answer.is_monitored = false;
	EXPECT_EQ(R"({"instance.status":910,"transaction.trace.sql.stacktrace.threshold":1})",
			  to_json(answer));
}
