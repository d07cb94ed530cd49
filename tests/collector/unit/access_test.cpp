#include <gtest/gtest.h>

#include "http/access.h"

using kaq::Access;
using kaq::AccessVerdict;
using kaq::check_access;

static AccessVerdict verdict(const Access &access, std::string_view path = "/api/v1/live") {
	return check_access(access, "secret", path);
}

TEST(Access, TokenComesAsBearerOrCookie) {
	EXPECT_EQ(AccessVerdict::kAllowed, verdict({"localhost:20023", "", "Bearer secret", ""}));
	EXPECT_EQ(AccessVerdict::kAllowed, verdict({"127.0.0.1", "", "", "kaq_token=secret"}));
	EXPECT_EQ(AccessVerdict::kAllowed,
			  verdict({"[::1]:20023", "", "", "a=b; kaq_token=secret; c=d"}));
}

TEST(Access, AnyOtherTokenIsRefused) {
	for (const char *token : {"", "secre", "secret2", "SECRET", "secrets", "ecret"}) {
		std::string bearer = std::string("Bearer ") + token;
		std::string cookie = std::string("kaq_token=") + token;
		EXPECT_EQ(AccessVerdict::kNoToken, verdict({"localhost", "", bearer, cookie})) << token;
	}
	EXPECT_EQ(AccessVerdict::kNoToken, verdict({"localhost", "", "secret", ""}));
	EXPECT_EQ(AccessVerdict::kNoToken,
			  verdict({"localhost", "", "Basic secret", "xkaq_token=secret"}));
}

TEST(Access, OtherNamesLeadNowhere) {
	for (const char *host : {"", "evil.example", "localhost.evil.example", "127.0.0.1.evil.example",
							 "127.0.0.2", "[::2]", "local"}) {
		EXPECT_EQ(AccessVerdict::kWrongHost, verdict({host, "", "Bearer secret", ""})) << host;
		EXPECT_EQ(AccessVerdict::kWrongHost, verdict({host, "", "", ""}, "/healthz")) << host;
	}
}

TEST(Access, PagesOfOtherSitesMayNotAsk) {
	EXPECT_EQ(AccessVerdict::kAllowed,
			  verdict({"localhost:20023", "http://localhost:20023", "Bearer secret", ""}));
	for (const char *origin : {"http://evil.example", "http://localhost", "http://localhost:20024",
							   "https://localhost:20023", "null"}) {
		EXPECT_EQ(AccessVerdict::kWrongOrigin,
				  verdict({"localhost:20023", origin, "Bearer secret", ""}))
			<< origin;
	}
}

TEST(Access, HealthNeedsNoToken) {
	EXPECT_EQ(AccessVerdict::kAllowed, verdict({"localhost", "", "", ""}, "/healthz"));
	EXPECT_EQ(AccessVerdict::kNoToken, verdict({"localhost", "", "", ""}, "/healthz/"));
}

TEST(Access, PagesNeedNoTokenButTheRightName) {
	for (const char *path : {"/", "/request", "/app.js"}) {
		EXPECT_EQ(AccessVerdict::kAllowed, verdict({"localhost", "", "", ""}, path)) << path;
		EXPECT_EQ(AccessVerdict::kWrongHost, verdict({"evil.example", "", "", ""}, path)) << path;
	}
	for (const char *path : {"/api/v1/top", "/metrics", "/a/b"}) {
		EXPECT_EQ(AccessVerdict::kNoToken, verdict({"localhost", "", "", ""}, path)) << path;
	}
}

TEST(Access, LoggingInNeedsNoTokenButTheRightName) {
	EXPECT_EQ(AccessVerdict::kAllowed, verdict({"localhost", "", "", ""}, "/login"));
	EXPECT_EQ(AccessVerdict::kWrongHost, verdict({"evil.example", "", "", ""}, "/login"));
	EXPECT_EQ(AccessVerdict::kNoToken, verdict({"localhost", "", "", ""}, "/login/x"));
}
