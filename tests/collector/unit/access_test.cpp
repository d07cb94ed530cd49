#include <gtest/gtest.h>

#include "http/access.h"

using kaq::Access;
using kaq::AccessVerdict;
using kaq::check_access;
using kaq::Sessions;

constexpr int64_t kNow = 1000;

static AccessVerdict verdict(const Access &access, std::string_view path = "/api/v1/live",
							 const Sessions *sessions = nullptr) {
	return check_access(access, {"secret", 20023, sessions}, path, kNow);
}

TEST(Access, TokenComesAsBearerAlone) {
	EXPECT_EQ(AccessVerdict::kAllowed, verdict({"localhost:20023", "", "Bearer secret", ""}));
	Sessions sessions("", kNow);
	sessions.begin(kNow);
	for (const char *cookie : {"kaq_token=secret", "kaq_session_20023=secret"}) {
		EXPECT_EQ(AccessVerdict::kNoToken,
				  verdict({"127.0.0.1", "", "", cookie}, "/api/v1/live", &sessions))
			<< cookie;
	}
}

TEST(Access, ASessionComesAsTheCookieOfThisPortAlone) {
	Sessions sessions("", kNow);
	std::string session = sessions.begin(kNow);
	auto with = [&](const std::string &authorization, const std::string &cookie) {
		return verdict({"127.0.0.1", "", authorization, cookie}, "/api/v1/live", &sessions);
	};
	EXPECT_EQ(AccessVerdict::kAllowed, with("", "kaq_session_20023=" + session));
	EXPECT_EQ(AccessVerdict::kAllowed, with("", "a=b; kaq_session_20023=" + session + "; c=d"));
	EXPECT_EQ(AccessVerdict::kNoToken, with("Bearer " + session, ""));
	EXPECT_EQ(AccessVerdict::kNoToken, with("", "kaq_session_20024=" + session));
	EXPECT_EQ(AccessVerdict::kNoToken, with("", "kaq_session_20023="));
	EXPECT_EQ(AccessVerdict::kNoToken, with("", ""));
	EXPECT_EQ(AccessVerdict::kNoToken,
			  verdict({"127.0.0.1", "", "", "kaq_session_20023=" + session}));
}

TEST(Access, AnyOtherTokenIsRefused) {
	for (const char *token : {"", "secre", "secret2", "SECRET", "secrets", "ecret"}) {
		std::string bearer = std::string("Bearer ") + token;
		EXPECT_EQ(AccessVerdict::kNoToken, verdict({"localhost", "", bearer, ""})) << token;
	}
	EXPECT_EQ(AccessVerdict::kNoToken, verdict({"localhost", "", "secret", ""}));
	EXPECT_EQ(AccessVerdict::kNoToken, verdict({"localhost", "", "Basic secret", ""}));
}

TEST(Access, NamesOfHostsAndSchemesHaveNoCase) {
	EXPECT_EQ(AccessVerdict::kAllowed, verdict({"LocalHost:20023", "", "bearer secret", ""}));
	EXPECT_EQ(AccessVerdict::kNoToken, verdict({"localhost", "", "bearer SECRET", ""}));
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
