/* Wrapped functions from the inside: records, installation, what a span holds while the call runs.
 * The functions are those of the stand-in drivers, whose module the environment names. */
#include "engine.h"

#include <stdlib.h>
#include <string.h>

#include "instrumentation/kaq_instrumentation.h"
#include "instrumentation/wrappers.h"

static std::string text_of(const char *text) {
	return text ? text : "(unset)";
}

/* What a span tells of its call. */
static std::string told_by(const kaq_function *fi) {
	static const struct _arg_data nothing = {};
	const struct _arg_data *data = fi->arg_data ? fi->arg_data : &nothing;
	return "type " + std::to_string(fi->type) + " query " + text_of(data->query) + " host " +
		   text_of(data->dbconnectHost) + " port " + std::to_string(data->dbconnectPort) + " db " +
		   text_of(data->dbname);
}

static std::string told_during_call;
static int calls;

static void look_at_span(void) {
	const kaq_node *node = kaq_get_globals()->current_node;
	calls++;
	told_during_call = node ? told_by(&node->data.function_info) : "no span";
}

class WrappedCall : public EngineTest {
protected:
	void SetUp() override {
		EngineTest::SetUp();
		const char *module = getenv("KAQ_STANDINS_SO");
		if (!module) {
			GTEST_SKIP() << "the environment names no stand-in drivers";
		}
		engine_restart(std::string("extension=") + module + "\nkaq_standins.take_over=1\n");
		g = kaq_get_globals();
		collector().answer(MONITORED_REPLY);
		server_variable("REQUEST_URI", "/page");
		start_request();
		ASSERT_EQ(1, g->control_signal);
		collector().take();
		EXPECT_TRUE(run_php("$object = new ArrayObject; $resource = kaq_standin_resource();"));
		probe = look_at_span;
		calls = 0;
	}

	void TearDown() override {
		EngineTest::TearDown();
		engine_restart();
	}

	/* Makes the stand-in of that name, and of no other, look at the span. */
	void watch(const std::string &name) {
		std::string code = "kaq_standin_plan($watched ?? '', null); $watched = '" + name +
						   "'; kaq_standin_plan($watched, 'probe');";
		ASSERT_TRUE(run_php(code.c_str()));
	}

	const kaq_function *newest() const {
		return &g->node_buffer->head->data.function_info;
	}
};

struct Timed {
	const char *name;
	const char *call;
	const char *after;
};

static const char UNSET[] = "type 0 query (unset) host (unset) port 0 db (unset)";
#define CONNECTED(host, port, db) "type 3 query (unset) host " host " port " port " db " db
#define QUERIED(text) "type 1 query " text " host (unset) port 0 db (unset)"

static const Timed stored_before[] = {
	{"sqlsrv_connect", "sqlsrv_connect('h', null);", CONNECTED("h", "0", "(unset)")},
	{"pg_connect", "pg_connect('h');", CONNECTED("h", "0", "(unset)")},
	{"pg_pconnect", "pg_pconnect([]);", CONNECTED("localhost", "0", "(unset)")},
	{"mysql_connect", "mysql_connect('h:1');", CONNECTED("h:1", "0", "(unset)")},
	{"mysqli_connect", "mysqli_connect('h', '', '', 'd', 2);", CONNECTED("h", "2", "d")},
	{"mysqli_real_connect", "mysqli_real_connect($object, 'h', '', '', 'd', 2);",
	 CONNECTED("h", "2", "d")},
	{"mysqli::__construct", "new mysqli('h', '', '', 'd', 2);", CONNECTED("h", "2", "d")},
	{"mysqli::connect", "(new mysqli)->connect('h', '', '', 'd', 2);", CONNECTED("h", "2", "d")},
	{"mysqli::real_connect", "(new mysqli)->real_connect('h', '', '', 'd', 2);",
	 CONNECTED("h", "2", "d")},
	{"pdo::__construct", "new PDO('a:b');", CONNECTED("a:b", "0", "(unset)")},
	{"redis::connect", "(new Redis)->connect('h', 2);", CONNECTED("h", "2", "(unset)")},
	{"redis::pconnect", "(new Redis)->pconnect('h', 2);", CONNECTED("h", "2", "(unset)")},
	{"redis::open", "(new Redis)->open('h', 2);", CONNECTED("h", "2", "(unset)")},
	{"redis::popen", "(new Redis)->popen([]);", CONNECTED("localhost", "0", "(unset)")},
	{"memcache_connect", "memcache_connect('h', 2);", CONNECTED("h", "2", "(unset)")},
	{"memcache_pconnect", "memcache_pconnect('h', 2);", CONNECTED("h", "2", "(unset)")},
	{"memcache::connect", "(new Memcache)->connect('h', 2);", CONNECTED("h", "2", "(unset)")},
	{"memcache::pconnect", "(new Memcache)->pconnect('h', 2);", CONNECTED("h", "2", "(unset)")},
	{"memcache::addserver", "(new Memcache)->addServer('h', 2);", CONNECTED("h", "2", "(unset)")},
	{"memcached::addserver", "(new Memcached)->addServer('h', 2);", CONNECTED("h", "2", "(unset)")},
};

static const Timed stored_after[] = {
	{"sqlsrv_query", "sqlsrv_query($resource, 'q');", QUERIED("q")},
	{"sqlsrv_prepare", "sqlsrv_prepare($resource, 'q');", QUERIED("q")},
	{"oci_parse", "oci_parse($resource, 'q');", QUERIED("q")},
	{"pg_query", "pg_query('q');", QUERIED("q")},
	{"pg_send_query", "pg_send_query($resource, 'q');", QUERIED("q")},
	{"pg_query_params", "pg_query_params('q', []);", QUERIED("q")},
	{"pg_prepare", "pg_prepare('n', 'q');", QUERIED("q")},
	{"mysql_query", "mysql_query('q');", QUERIED("q")},
	{"mysql_unbuffered_query", "mysql_unbuffered_query('q');", QUERIED("q")},
	{"mysql_db_query", "mysql_db_query('d', 'q');", QUERIED("q")},
	{"mysqli_query", "mysqli_query($object, 'q');", QUERIED("q")},
	{"mysqli_real_query", "mysqli_real_query($object, []);", QUERIED("")},
	{"mysqli_multi_query", "mysqli_multi_query('q');", QUERIED("q")},
	{"mysqli_prepare", "mysqli_prepare($object, 'q');", QUERIED("q")},
	{"mysqli_stmt_prepare", "mysqli_stmt_prepare($object, 'q');", QUERIED("q")},
	{"mysqli_select_db", "mysqli_select_db($object, 'd');",
	 "type 3 query (unset) host (unset) port 0 db d"},
	{"mysqli::select_db", "(new mysqli)->select_db($object, 'd');",
	 "type 3 query (unset) host (unset) port 0 db d"},
	{"mysqli::query", "(new mysqli)->query('q');", QUERIED("q")},
	{"mysqli::real_query", "(new mysqli)->real_query('q');", QUERIED("q")},
	{"mysqli::multi_query", "(new mysqli)->multi_query('q');", QUERIED("q")},
	{"mysqli::prepare", "(new mysqli)->prepare('q');", QUERIED("q")},
	{"mysqli_stmt::prepare", "(new mysqli_stmt(1))->prepare('q');", QUERIED("q")},
	{"pdo::query", "(new PDO(1))->query('q');", QUERIED("q")},
	{"pdo::exec", "(new PDO(1))->exec('q');", QUERIED("q")},
	{"pdo::prepare", "(new PDO(1))->prepare('q');", QUERIED("q")},
	{"cassandra\\\\simplestatement::__construct", "new Cassandra\\SimpleStatement('q');",
	 QUERIED("q")},
	{"cassandra\\\\batchstatement::add", "(new Cassandra\\BatchStatement)->add('q');",
	 QUERIED("q")},
	{"cassandra\\\\defaultsession::execute", "(new Cassandra\\DefaultSession)->execute('q');",
	 QUERIED("q")},
	{"cassandra\\\\defaultsession::executeasync",
	 "(new Cassandra\\DefaultSession)->executeAsync('q');", QUERIED("q")},
	{"cassandra\\\\cluster\\\\builder::withcontactpoint",
	 "(new Cassandra\\Cluster\\Builder)->withContactPoint('h');", CONNECTED("h", "0", "(unset)")},
};

TEST_F(WrappedCall, TargetOfAConnectionIsStoredBeforeTheCall) {
	for (const Timed &row : stored_before) {
		watch(row.name);
		calls = 0;
		EXPECT_TRUE(run_php(row.call)) << row.name;
		EXPECT_EQ(1, calls) << row.name;
		EXPECT_EQ(row.after, told_during_call) << row.name;
		EXPECT_EQ(row.after, told_by(newest())) << row.name;
	}
}

TEST_F(WrappedCall, TextOfAQueryIsStoredAfterTheCall) {
	for (const Timed &row : stored_after) {
		watch(row.name);
		calls = 0;
		EXPECT_TRUE(run_php(row.call)) << row.name;
		EXPECT_EQ(1, calls) << row.name;
		EXPECT_EQ(UNSET, told_during_call) << row.name;
		EXPECT_EQ(row.after, told_by(newest())) << row.name;
	}
}

TEST_F(WrappedCall, NamesAndPriorityAreThereBeforeTheCall) {
	watch("redis::get");
	static std::string seen;
	probe = [] {
		const kaq_node *node = kaq_get_globals()->current_node;
		const kaq_function *fi = &node->data.function_info;
		seen = text_of(fi->class_name) + "::" + text_of(fi->function_name) + " " +
			   fi->component_name + " " + std::to_string(fi->isExternal) + " " +
			   std::to_string(fi->priority) + " " + std::to_string(node->data.state);
	};
	EXPECT_TRUE(run_php("(new Redis)->get('k');"));
	EXPECT_EQ("redis::get Redis 1 1 1", seen);
}

TEST_F(WrappedCall, DiesWithItsSpanOpenUntilTheRequestEnds) {
	EXPECT_TRUE(run_php("kaq_standin_plan('mysql_query', 'fatal');"));
	EXPECT_TRUE(dies_in_php("mysql_query('q');"));
	ASSERT_NE(nullptr, g->current_node);
	EXPECT_EQ(KAQ_NODE_OPEN, g->current_node->data.state);
	EXPECT_EQ(QUERIED("q"), told_by(&g->current_node->data.function_info));
	end_request();
	std::vector<std::string> data = collector().take_data();
	ASSERT_EQ(1u, data.size());
	EXPECT_NE(std::string::npos, decode_line(data[0]).find("\"fn\":\"mysql_query\""));
}

TEST_F(WrappedCall, RunsWithoutASpanWhenNoneCanBeHad) {
	watch("mysql_query");
	std::vector<kaq_node *> held;
	for (;;) {
		allocation_fails(1);
		kaq_node *node = kaq_create_new_node();
		if (!node) {
			break;
		}
		held.push_back(node);
	}
	int stored = g->stored_node_count;
	for (const char *call : {"mysql_query('q');", "mysql_query([]);"}) {
		allocation_fails(1);
		calls = 0;
		EXPECT_TRUE(run_php(call));
		EXPECT_EQ(1, calls);
	}
	allocation_fails(0);
	EXPECT_EQ(stored, g->stored_node_count);
	for (kaq_node *node : held) {
		kaq_free_node(node);
	}
	EXPECT_TRUE(run_php("mysql_query('q');"));
	EXPECT_EQ(stored + 1, g->stored_node_count);
}

/* At module end the functions stay wrapped in the engine's tables. */
TEST_F(WrappedCall, DoesNothingOnceTheRecordsAreGone) {
	watch("mysql_query");
	kaq_destroy_internal_wrap_records();
	EXPECT_EQ(nullptr, kaq_wrapped_internal_functions);
	for (size_t i = 0; i < kaq_wrapper_count; i++) {
		EXPECT_EQ(nullptr, *kaq_wrappers[i].outer_wrapper_global);
	}
	EXPECT_EQ("[null,null]", php_json("[mysql_query('q'), (new Redis)->get('k')]"));
	EXPECT_EQ(0, calls);
	kaq_generate_internal_wrap_records();
	kaq_add_internal_instrumentation();
	EXPECT_EQ("null", php_json("mysql_query('q')")) << "a wrapper does not wrap itself";
	EXPECT_EQ(0, calls);
}

TEST_F(WrappedCall, IsInstalledForEveryRecordButTheTwoOracleConnects) {
	int installed = 0;
	for (const kaq_internalfn_t *r = kaq_wrapped_internal_functions; r; r = r->next) {
		bool is_connect =
			!strcmp(r->full_name, "oci_connect") || !strcmp(r->full_name, "oci_pconnect");
		EXPECT_EQ(!is_connect, r->is_enabled != 0) << r->full_name;
		EXPECT_EQ(r->is_enabled ? 1 : 0, r->is_wrapped) << r->full_name;
		EXPECT_EQ(r->is_wrapped ? r : nullptr, *r->outer_wrapper_global) << r->full_name;
		EXPECT_EQ(r->is_wrapped != 0, r->oldhandler != nullptr) << r->full_name;
		EXPECT_NE(r->outer_wrapper, r->oldhandler) << r->full_name;
		installed += r->is_wrapped;
	}
	EXPECT_EQ(146, installed);
}

TEST_F(WrappedCall, IsNotInstalledTwice) {
	watch("mysql_query");
	for (int round = 0; round < 3; round++) {
		g->work_done = 0;
		kaq_late_initialization();
		kaq_add_internal_instrumentation();
	}
	int stored = g->stored_node_count;
	EXPECT_TRUE(run_php("mysql_query('q');"));
	EXPECT_EQ(1, calls);
	EXPECT_EQ(stored + 1, g->stored_node_count);
}

TEST_F(WrappedCall, IsLookedForOncePerThread) {
	kaq_internalfn_t *query = kaq_wrapped_internal_functions;
	while (query && strcmp(query->full_name, "mysql_query") != 0) {
		query = query->next;
	}
	ASSERT_NE(nullptr, query);
	zend_function *function = kaq_find_function("mysql_query");
	function->internal_function.handler = query->oldhandler;
	query->is_wrapped = 0;
	kaq_late_initialization();
	EXPECT_EQ(query->oldhandler, function->internal_function.handler);
	kaq_add_internal_instrumentation();
	EXPECT_EQ(query->outer_wrapper, function->internal_function.handler);
}

class WrapRecords : public SpanTest {};

TEST_F(WrapRecords, AreThe148OfTheTableNewestFirst) {
	std::vector<std::string> names;
	for (const kaq_internalfn_t *r = kaq_wrapped_internal_functions; r; r = r->next) {
		names.push_back(r->full_name);
		EXPECT_EQ(nullptr, r->extra);
		EXPECT_NE(nullptr, r->inner_wrapper);
		EXPECT_NE(nullptr, r->outer_wrapper);
	}
	ASSERT_EQ(148u, names.size());
	EXPECT_EQ("sqlsrv_close", names.front());
	EXPECT_EQ("cassandra\\defaultcluster::connect", names.back());
	EXPECT_EQ("curl_init", names[148 - 9]);
}

TEST_F(WrapRecords, AreMadeOnce) {
	const kaq_internalfn_t *head = kaq_wrapped_internal_functions;
	kaq_generate_internal_wrap_records();
	EXPECT_EQ(head, kaq_wrapped_internal_functions);
}

TEST_F(WrapRecords, ANewOneIsEmptyAndComesFirst) {
	kaq_internalfn_t *head = kaq_wrapped_internal_functions;
	kaq_internalfn_t *made = kaq_get_wraprec();
	ASSERT_NE(nullptr, made);
	EXPECT_EQ(made, kaq_wrapped_internal_functions);
	EXPECT_EQ(head, made->next);
	EXPECT_EQ(nullptr, made->full_name);
	EXPECT_EQ(0, made->is_enabled);
	kaq_wrapped_internal_functions = head;
	kaq_internal_wraprec_destroy(&made);
	EXPECT_EQ(nullptr, made);
	allocation_fails(1);
	EXPECT_EQ(nullptr, kaq_get_wraprec());
	EXPECT_EQ(head, kaq_wrapped_internal_functions);
}

static void never_called(zend_execute_data *, zval *) {
	ADD_FAILURE() << "called";
}

static void never_recorded(zend_execute_data *, zval *, kaq_internalfn_t *, kaq_node *) {
	ADD_FAILURE() << "recorded";
}

TEST_F(WrapRecords, AnIncompleteOneDoesNothing) {
	g->control_signal = 1;
	kaq_internalfn_t record = {};
	kaq_instrument_delegate(nullptr, nullptr, nullptr);
	record.oldhandler = never_called;
	kaq_instrument_delegate(&record, nullptr, nullptr);
	record.oldhandler = nullptr;
	record.inner_wrapper = never_recorded;
	kaq_instrument_delegate(&record, nullptr, nullptr);
	EXPECT_EQ(0, g->node_buffer_len);
}

TEST_F(WrapRecords, NamesAreTakenApart) {
	const struct {
		const char *full, *class_name, *function;
	} rows[] = {{"f", "(null)", "f"},     {"c::m", "c", "m"}, {"a\\b::m", "a\\b", "m"},
				{"a::b::c", "a", "b::c"}, {"::m", "", "m"},   {":m", "", ":m"},
				{"", "(null)", ""}};
	for (const auto &row : rows) {
		EXPECT_EQ(row.class_name, take_text(kaq_class_name_from_full_name(row.full))) << row.full;
		EXPECT_EQ(row.function, take_text(kaq_function_name_from_full_name(row.full))) << row.full;
	}
}

TEST_F(WrapRecords, LookUpsAreExact) {
	EXPECT_NE(nullptr, kaq_find_function("strlen"));
	for (const char *name : {"STRLEN", "strle", "strlenn", "", (const char *)nullptr}) {
		EXPECT_EQ(nullptr, kaq_find_function(name)) << text_of(name);
	}
	zend_class_entry *ce = kaq_find_class("arrayobject");
	ASSERT_NE(nullptr, ce);
	EXPECT_NE(nullptr, kaq_find_class_method(ce, "count"));
	for (const char *name : {"Count", "coun", "", (const char *)nullptr}) {
		EXPECT_EQ(nullptr, kaq_find_class_method(ce, name)) << text_of(name);
	}
	for (const char *name : {"ArrayObject", "", (const char *)nullptr}) {
		EXPECT_EQ(nullptr, kaq_find_class(name)) << text_of(name);
	}
	EXPECT_EQ(nullptr, kaq_find_class_method(nullptr, "count"));
}

TEST_F(WrapRecords, WhatCannotBeWrappedIsLeftAlone) {
	EXPECT_TRUE(run_php("function user_function() {} class user_class { function m() {} }"));
	for (const char *name : {"user_function", "user_class::m", "missing", "missing::m",
							 "arrayobject::missing", "::count", ":count", ""}) {
		kaq_internalfn_t *slot = nullptr;
		kaq_internalfn_t record = {};
		record.full_name = name;
		record.outer_wrapper = never_called;
		record.outer_wrapper_global = &slot;
		record.is_enabled = 1;
		kaq_wrap_internal_function(&record);
		EXPECT_EQ(0, record.is_wrapped) << name;
		EXPECT_EQ(nullptr, slot) << name;
	}
}

TEST_F(WrapRecords, OneWithoutASlotIsInstalledAllTheSame) {
	zend_function *function = kaq_find_class_method(kaq_find_class("arrayobject"), "count");
	kaq_phpfn_t handler = function->internal_function.handler;
	kaq_internalfn_t record = {};
	record.full_name = "arrayobject::count";
	record.outer_wrapper = never_called;
	kaq_wrap_internal_function(&record);
	EXPECT_EQ(1, record.is_wrapped);
	EXPECT_EQ(handler, record.oldhandler);
	EXPECT_EQ(never_called, function->internal_function.handler);
	kaq_wrap_internal_function(&record);
	EXPECT_EQ(handler, record.oldhandler) << "a second time changes nothing";
	function->internal_function.handler = handler;
}

TEST_F(WrapRecords, HandlerOfSomebodyElseInALaterThreadsTableStays) {
	zend_function *function = kaq_find_class_method(kaq_find_class("arrayobject"), "count");
	kaq_phpfn_t handler = function->internal_function.handler;
	kaq_internalfn_t record = {};
	record.full_name = "arrayobject::count";
	record.outer_wrapper = never_called;
	kaq_phpfn_t somebody_elses = [](zend_execute_data *, zval *) {};
	const struct {
		kaq_phpfn_t before, after;
	} tables[] = {{handler, never_called},
				  {handler, never_called},
				  {never_called, never_called},
				  {somebody_elses, somebody_elses}};
	for (const auto &table : tables) {
		function->internal_function.handler = table.before;
		kaq_wrap_internal_function(&record);
		EXPECT_EQ(table.after, function->internal_function.handler);
		EXPECT_EQ(handler, record.oldhandler);
	}
	function->internal_function.handler = handler;
}

static void returns_seven(zend_execute_data *, zval *return_value) {
	ZVAL_LONG(return_value, 7);
}

static zend_execute_data deeper_frame;

static void bails_out(zend_execute_data *, zval *) {
	EG(current_execute_data) = &deeper_frame;
	zend_bailout();
}

TEST_F(WrapRecords, ProtectedCallTellsWhetherItBailedOutAndPutsTheTargetBack) {
	JMP_BUF *target = EG(bailout);
	zend_execute_data *outer_frame = EG(current_execute_data), frame = {};
	zval value;
	ZVAL_NULL(&value);
	EXPECT_EQ(0, kaq_zend_call_old_handler(returns_seven, &frame, &value));
	EXPECT_EQ(7, Z_LVAL(value));
	EXPECT_EQ(target, EG(bailout));
	EXPECT_EQ(1, kaq_zend_call_old_handler(bails_out, &frame, &value));
	EXPECT_EQ(target, EG(bailout));
	EXPECT_EQ(&frame, EG(current_execute_data));
	EG(current_execute_data) = outer_frame;
	CG(unclean_shutdown) = 0;
}
