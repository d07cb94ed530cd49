#include "engine.h"

#include <sapi/embed/php_embed.h>
#include <stdlib.h>
#include <string.h>

static const char BASE_INI[] = "html_errors=0\nregister_argc_argv=0\nmax_execution_time=0\n"
							   "display_errors=0\nlog_errors=0\nmemory_limit=512M\n"
							   "zend.assertions=-1\n";

typedef std::vector<std::pair<std::string, std::string>> Pairs;

void (*probe)(void);

static bool is_running;
static bool variables_bail_out;
static std::string extra_ini;
static zend_kaq_globals startup_globals;
static Pairs server_variables;
static Pairs request_headers;

static ZEND_FUNCTION(getallheaders) {
	(void)execute_data;
	array_init(return_value);
	for (const auto &header : request_headers) {
		add_assoc_stringl(return_value, header.first.c_str(), (char *)header.second.data(),
						  header.second.size());
	}
}

static ZEND_FUNCTION(probe) {
	(void)execute_data;
	(void)return_value;
	probe();
}

ZEND_BEGIN_ARG_INFO_EX(arginfo_none, 0, 0, 0)
ZEND_END_ARG_INFO()

static const zend_function_entry additional_functions[] = {
	ZEND_FE(getallheaders, arginfo_none) ZEND_FE(probe, arginfo_none) PHP_FE_END};

static void register_server_variables(zval *array) {
	if (variables_bail_out) {
		zend_bailout();
	}
	for (const auto &variable : server_variables) {
		add_assoc_stringl(array, variable.first.c_str(), (char *)variable.second.data(),
						  variable.second.size());
	}
}

static void set_settings(sapi_module_struct *sapi, const std::string &ini) {
#if KAQ_EMBED_FREES_SETTINGS
	free((void *)sapi->ini_entries);
	sapi->ini_entries = strdup(ini.c_str());
#else
	static std::string kept;
	kept = ini;
	sapi->ini_entries = kept.c_str();
#endif
}

/* Module startup in place of the embed library's own: the same with one module more. */
static int start_module(sapi_module_struct *sapi) {
	set_settings(sapi, BASE_INI + extra_ini);
	sapi->additional_functions = additional_functions;
	/* PHP 7.0 by itself loses a class name at each startup. */
	leak_check_off();
	int status = KAQ_STARTUP_MODULE(sapi, &kaq_module_entry);
	leak_check_on();
	if (status == FAILURE) {
		return FAILURE;
	}
	zend_kaq_globals *g = kaq_get_globals();
	startup_globals = *g;
	g->tcp_status_port = collector().status_port();
	g->tcp_data_port = collector().data_port();
	return SUCCESS;
}

void engine_start(const std::string &ini) {
	extra_ini = ini;
	server_variables.clear();
	php_embed_module.startup = start_module;
	php_embed_module.register_server_variables = register_server_variables;
	php_embed_module.php_ini_ignore = 1;
	if (php_embed_init(0, nullptr) == FAILURE) {
		abort();
	}
	is_running = true;
	php_request_shutdown(nullptr);
	collector().take();
}

/* The embed library ends the request that it believes to be running. */
void engine_stop(void) {
	is_running = false;
	php_request_startup();
	php_embed_shutdown();
	collector().take();
}

/* An embed library that cannot be started twice, by itself, gets its modules restarted alone. */
void engine_restart(const std::string &ini) {
#ifdef KAQ_EMBED_LIBRARY_STARTS_ONCE
	extra_ini = ini;
	php_module_shutdown();
	if (start_module(&php_embed_module) == FAILURE) {
		abort();
	}
#else
	engine_stop();
	engine_start(ini);
#endif
}

bool engine_is_running(void) {
	return is_running;
}

const zend_kaq_globals &globals_at_startup(void) {
	return startup_globals;
}

void set_request_headers(const Pairs &headers) {
	request_headers = headers;
}

bool run_php(const char *code) {
	volatile bool ran = false;
	zend_try {
		zend_eval_string((char *)code, nullptr, (char *)"test");
		ran = true;
	}
	zend_end_try();
	return ran && !CG(unclean_shutdown);
}

bool dies_in_php(const char *code) {
	leak_check_off();
	bool died = !run_php(code);
	leak_check_on();
	return died;
}

zval php_value(const char *expression) {
	zval value;
	ZVAL_UNDEF(&value);
	zend_eval_string((char *)expression, &value, (char *)"test");
	return value;
}

std::string php_json(const char *expression) {
	zval value = php_value(expression);
	std::string text = take_text(kaq_encode_zval_to_json(&value));
	zval_ptr_dtor(&value);
	return text;
}

std::string take_text(char *text) {
	std::string copy = text ? text : "(null)";
	free(text);
	return copy;
}

std::string take_buffer(smart_str *buffer) {
	std::string copy = buffer->s ? std::string(ZSTR_VAL(buffer->s), ZSTR_LEN(buffer->s)) : "";
	kaq_buf_free(buffer);
	return copy;
}

void EngineTest::SetUp() {
	stand_ins_reset();
	if (!engine_is_running()) {
		engine_start();
	}
	g = kaq_get_globals();
	server_variables.clear();
	request_headers.clear();
	collector().answer("");
	collector().take();
	saved_ = *g;
}

static int zend_kaq_globals::*const setting_fields[] = {
	&zend_kaq_globals::method_threshold,
	&zend_kaq_globals::capture_clirequest,
	&zend_kaq_globals::max_stack_depth,
	&zend_kaq_globals::tcp_status_port,
	&zend_kaq_globals::tcp_data_port,
	&zend_kaq_globals::enable_auto_rum,
	&zend_kaq_globals::track_errors,
	&zend_kaq_globals::track_exceptions,
	&zend_kaq_globals::track_zend_execute,
	&zend_kaq_globals::span_limit,
	&zend_kaq_globals::prune_intermediate_spans};

void EngineTest::TearDown() {
	stand_ins_reset();
	if (request_is_open_) {
		end_request();
	}
	g = kaq_get_globals();
	for (int zend_kaq_globals::*field : setting_fields) {
		g->*field = saved_.*field;
	}
	g->sql_trace_threshold = saved_.sql_trace_threshold;
	g->root_parentspanid[0] = '\0';
}

void EngineTest::server_variable(const std::string &name, const std::string &value) {
	server_variables.emplace_back(name, value);
}

void EngineTest::start_request() {
	ASSERT_FALSE(request_is_open_);
	ASSERT_EQ(SUCCESS, php_request_startup());
	request_is_open_ = true;
	g = kaq_get_globals();
}

void EngineTest::end_request() {
	ASSERT_TRUE(request_is_open_);
	request_is_open_ = false;
	php_request_shutdown(nullptr);
}

void EngineTest::start_request_in_vain() {
	ASSERT_FALSE(request_is_open_);
	variables_bail_out = true;
	leak_check_off();
	EXPECT_EQ(FAILURE, php_request_startup());
	leak_check_on();
	variables_bail_out = false;
	request_is_open_ = true;
}

template <typename Result> static Result bail_out_at_request_end(int, int) {
	zend_bailout();
	return static_cast<Result>(FAILURE);
}

void EngineTest::skip_request_end() {
	zend_module_entry *module =
		(zend_module_entry *)zend_hash_str_find_ptr(&module_registry, "kaq", strlen("kaq"));
	auto request_end = module->request_shutdown_func;
	module->request_shutdown_func = bail_out_at_request_end;
	leak_check_off();
	end_request();
	leak_check_on();
	module->request_shutdown_func = request_end;
}

void SpanTest::SetUp() {
	EngineTest::SetUp();
	start_request();
	ASSERT_EQ(nullptr, g->current_node);
	clock_stands_at(1000000);
}

kaq_node *SpanTest::open_span(const char *name, uint64_t ago, const char *component) {
	kaq_node *node = kaq_create_new_node();
	kaq_copy_function_info(&node->data.function_info, nullptr, name, component, INTERNAL);
	kaq_open_node(node);
	node->data.start_time -= ago;
	return node;
}

kaq_node *SpanTest::span_of(const char *name, uint64_t duration, const char *component) {
	kaq_node *node = open_span(name, duration, component);
	int stored = g->stored_node_count;
	kaq_close_node(node);
	return g->stored_node_count > stored ? node : nullptr;
}

std::vector<std::string> SpanTest::buffered() const {
	std::vector<std::string> names;
	for (const kaq_node *node = g->node_buffer->head; node; node = node->next) {
		names.push_back(node->data.function_info.function_name);
	}
	return names;
}

void MonitoredTest::SetUp() {
	EngineTest::SetUp();
	collector().answer(MONITORED_REPLY);
	server_variable("REQUEST_URI", "/page");
	clock_stands_at(1000000);
	start_request();
	ASSERT_EQ(1, g->control_signal);
	ASSERT_NE(nullptr, g->current_node);
	collector().take();
}

std::string MonitoredTest::end_and_take_document() {
	end_request();
	std::vector<std::string> data = collector().take_data();
	EXPECT_EQ(1u, data.size());
	return data.size() == 1 ? decode_line(data[0]) : "";
}
