#include "curl_engine.h"

static bool curl_is_loaded_for_the_suite;

/* A sanitizer ends a program that loads a module the way the engine does. */
#ifdef __SANITIZE_ADDRESS__
static const bool MODULES_CAN_BE_LOADED = false;
#else
static const bool MODULES_CAN_BE_LOADED = true;
#endif

static const char NO_CURL[] = "curl is not built in, and cannot be loaded";

static bool has_curl() {
	return zend_hash_str_exists(&module_registry, "curl", strlen("curl"));
}

void CurlTest::SetUpTestSuite() {
	if (!engine_is_running()) {
		engine_start();
	}
	if (!has_curl() && MODULES_CAN_BE_LOADED) {
		engine_restart("extension=curl.so\n");
		curl_is_loaded_for_the_suite = true;
	}
}

void CurlTest::TearDownTestSuite() {
	if (curl_is_loaded_for_the_suite) {
		curl_is_loaded_for_the_suite = false;
		engine_restart();
	}
}

void CurlTest::SetUp() {
	EngineTest::SetUp();
	if (!has_curl()) {
		GTEST_SKIP() << NO_CURL;
	}
	start_request();
	ASSERT_EQ(0, g->control_signal);
}

void MonitoredCurlTest::SetUp() {
	EngineTest::SetUp();
	if (!has_curl()) {
		GTEST_SKIP() << NO_CURL;
	}
	collector().answer("{\"instance.id\":\"i1\",\"instance.status\":920,\"app.id\":\"shop\"}");
	server_variable("REQUEST_URI", "/page");
	start_request();
	ASSERT_EQ(1, g->control_signal);
	collector().take();
}

std::string json_of(const zval *value) {
	return value ? take_text(kaq_encode_zval_to_json((zval *)value)) : "(null)";
}
