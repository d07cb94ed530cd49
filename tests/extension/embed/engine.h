/*
 * The engine inside the test program, with the extension as a built-in module, and the fixtures of
 * all tests. The engine starts with the first test that needs it and serves all later ones;
 * requests start and end as the tests say.
 */
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "core/lifecycle.h"
#include "spans/kaq_util.h"
#include "spans/node_pool.h"
#include "json/kaq_json.h"
#include "fake_collector.h"
#include "stand_ins.h"

/* A reply that has the request monitored. */
#define MONITORED_REPLY "{\"instance.id\":\"i1\",\"instance.status\":920}"

/* Starts the engine with these lines added to php.ini; the request that the embed library opens is
 * ended at once. */
void engine_start(const std::string &ini = "");
void engine_stop(void);
/* Module shutdown and startup again, as a graceful restart of a web server does. */
void engine_restart(const std::string &ini = "");
bool engine_is_running(void);

/* The extension's record as module startup left it, before the collector's ports were put in. */
const zend_kaq_globals &globals_at_startup(void);

/* What getallheaders() returns; the function is missing while this is off. */
void set_request_headers(const std::vector<std::pair<std::string, std::string>> &headers);

/* The script function probe() calls this. A probe must not throw. */
extern void (*probe)(void);

/* Runs code, which opens no span itself. False when it ended in a bailout. */
bool run_php(const char *code);
/* The same for code that is meant to end in a bailout. True when it did. */
bool dies_in_php(const char *code);
/* The value of an expression; the caller releases it with zval_ptr_dtor. */
zval php_value(const char *expression);
/* php_value as the extension's JSON text. */
std::string php_json(const char *expression);

/* The text, and frees it; "(null)" for null. */
std::string take_text(char *text);
/* What a buffer holds, and frees it. */
std::string take_buffer(smart_str *buffer);

/* Engine running, no request. Afterwards a request that the test left open is ended, and the
 * settings' fields are what they were. */
class EngineTest : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;

	/* Server variables of the next request, in this order. */
	void server_variable(const std::string &name, const std::string &value);
	void start_request();
	void end_request();
	/* A request start that bails out when it asks for the server variables. */
	void start_request_in_vain();
	/* A request end that the engine does not come to, for another extension bails out before. */
	void skip_request_end();
	bool request_is_open() const {
		return request_is_open_;
	}

	zend_kaq_globals *g = nullptr;

private:
	bool request_is_open_ = false;
	zend_kaq_globals saved_;
};

/* A request that the collector does not monitor: spans can be recorded, none is open. */
class SpanTest : public EngineTest {
protected:
	void SetUp() override;

	/* A user-code span, named, opened `ago` ms before the clock's present stand. */
	kaq_node *open_span(const char *name, uint64_t ago = 0, const char *component = "PHP");
	/* Opens and closes one that lasts `duration` ms; null when it was dropped. */
	kaq_node *span_of(const char *name, uint64_t duration, const char *component = "PHP");
	/* Function names of the buffered spans, newest first. */
	std::vector<std::string> buffered() const;
};

/* A monitored web request for "/page" with the root span open. */
class MonitoredTest : public EngineTest {
protected:
	void SetUp() override;
	/* Ends the request and returns the document that it sent. */
	std::string end_and_take_document();
};
