/* Calls of user code get their nodes late: what the tree looks like must not depend on when. */
#include "engine.h"

#include <algorithm>
#include <string.h>

#include "spans/kaq_execute.h"
#include "util/swallowed_bailout.h"

static zend_kaq_globals *now;

static std::string name_of(const kaq_node *node) {
	const kaq_function &fi = node->data.function_info;
	std::string name = fi.class_name ? std::string(fi.class_name) + "::" : "";
	return name + (fi.function_name ? fi.function_name : "(null)");
}

static void ask_for_the_current_span() {
	kaq_current_node(now);
}

static void ask_and_wait() {
	kaq_current_node(now);
	clock_advances(1);
}

static void wait_long() {
	clock_advances(50);
}

/* Scripts whose function probe() does what a test says; short calls are dropped. */
class OpenSpans : public SpanTest {
protected:
	void SetUp() override {
		SpanTest::SetUp();
		now = g;
		g->control_signal = 1;
		kaq_create_main_method();
		probe = wait_long;
	}

	void TearDown() override {
		kaq_free_node_buffer();
		EXPECT_EQ(0, g->node_pool.open_count);
		g->control_signal = 0;
		SpanTest::TearDown();
	}

	/* "key name<key of the parent (count of its children)" of each kept span, by key. */
	std::vector<std::string> tree() {
		kaq_close_open_nodes();
		std::vector<const kaq_node *> nodes;
		for (const kaq_node *node = g->node_buffer->head; node; node = node->next) {
			nodes.push_back(node);
		}
		std::sort(nodes.begin(), nodes.end(),
				  [](const kaq_node *a, const kaq_node *b) { return a->data.key < b->data.key; });
		std::vector<std::string> lines;
		for (const kaq_node *node : nodes) {
			const kaq_node *parent = node->data.parent;
			lines.push_back(std::to_string(node->data.key) + " " + name_of(node) + "<" +
							(parent ? std::to_string(parent->data.key) : "") + " (" +
							std::to_string(node->data.child_count) + ")");
		}
		return lines;
	}

	using Tree = std::vector<std::string>;
};

TEST_F(OpenSpans, ShortCallsLeaveNothingAndAreCountedAsChildren) {
	ASSERT_TRUE(run_php("function a() { b(); b(); } function b() {} a(); a(); a();"));
	EXPECT_EQ((Tree{"0 main< (3)"}), tree());
}

TEST_F(OpenSpans, LongCallGivesItsCallersTheKeysOfTheirTurn) {
	ASSERT_TRUE(run_php("function a() { b(); b(); c(); b(); } function b() {} function c() { d(); }"
						"function d() { b(); probe(); b(); } a();"));
	EXPECT_EQ((Tree{"0 main< (1)", "1 a<0 (4)", "2 c<1 (1)", "3 d<2 (2)"}), tree());
}

TEST_F(OpenSpans, KeysGoOnAfterWhatWasKeptBefore) {
	ASSERT_TRUE(
		run_php("function a() { long(); short(); b(); short(); } function long() { probe(); }"
				"function short() {} function b() { short(); long(); } a();"));
	EXPECT_EQ((Tree{"0 main< (1)", "1 a<0 (4)", "2 long<1 (0)", "3 b<1 (2)", "4 long<3 (0)"}),
			  tree());
}

TEST_F(OpenSpans, AskingForTheCurrentSpanChangesNoTree) {
	probe = ask_for_the_current_span;
	ASSERT_TRUE(run_php("function a() { b(); probe(); b(); } function b() { probe(); } a(); b();"));
	EXPECT_EQ((Tree{"0 main< (2)"}), tree());
}

TEST_F(OpenSpans, TimesAreThoseOfTheCallNotOfTheAsking) {
	probe = ask_and_wait;
	g->method_threshold = 2;
	ASSERT_TRUE(run_php("function a() { probe(); b(); } function b() { probe(); probe(); } a();"));
	EXPECT_EQ((Tree{"0 main< (1)", "1 a<0 (1)", "2 b<1 (0)"}), tree());
	const kaq_node *a = g->node_buffer->head->next;
	const kaq_node *b = a->next;
	EXPECT_EQ("a", name_of(a));
	EXPECT_EQ(1000000u, a->data.start_time);
	EXPECT_EQ(1000003u, a->data.end_time);
	EXPECT_EQ(1000001u, b->data.start_time);
	EXPECT_EQ(1000003u, b->data.end_time);
}

TEST_F(OpenSpans, ErrorIsRecordedInTheInnermostCallAndKeepsItsCallers) {
	ASSERT_TRUE(run_php("function a() { b(); c(); b(); } function b() {} function c() { $x = $y; }"
						"a();"));
	EXPECT_EQ((Tree{"0 main< (1)", "1 a<0 (3)", "2 c<1 (0)"}), tree());
	for (const kaq_node *node = g->node_buffer->head; node; node = node->next) {
		EXPECT_EQ(name_of(node) == "c", node->data.function_info.isError) << name_of(node);
	}
}

TEST_F(OpenSpans, ExceptionIsRecordedWhereItWasThrown) {
	ASSERT_TRUE(run_php("function a() { try { b(); } catch (Exception $e) { c(); } }"
						"function b() { c(); throw new Exception; } function c() {} a();"));
	Tree expected = {"0 main< (1)", "1 a<0 (2)", "2 b<1 (1)"};
	EXPECT_EQ(expected, tree());
}

TEST_F(OpenSpans, ClosureThatIsGoneBeforeItsCallEndsKeepsItsName) {
	ASSERT_TRUE(run_php("class A { function b() { return function () { probe(); }; } }"
						"function run($f) { $f(); }"
						"run((new A)->b()); call_user_func(function () { probe(); });"
						"$g = function () use (&$g) { $g = null; probe(); }; $g();"));
	Tree names;
	for (const std::string &line : tree()) {
		names.push_back(
			line.substr(0, line.find(line.find("::") == std::string::npos ? "{" : "::")));
	}
	EXPECT_EQ((Tree{"0 main< (4)", "1 run<0 (1)", "2 A", "3 ", "4 "}), names);
}

TEST_F(OpenSpans, ShortClosuresAreDroppedAndGiveTheirNamesBack) {
	auto run = [] {
		ASSERT_TRUE(run_php("for ($i = 0; $i < 100; $i++) { eval('(function () {})();'); }"));
	};
	run();
	EXPECT_EQ((Tree{"0 main< (100)"}), tree());
}

TEST_F(OpenSpans, MagicCallBearsTheNameThatWasCalled) {
	ASSERT_TRUE(run_php("class A { function __call($name, $arguments) { probe(); } }"
						"$name = 'so' . 'Magic' . mt_rand(5, 5); (new A)->$name();"
						"$name = str_repeat('x', 9);"));
	Tree lines = tree();
	ASSERT_LE(2u, lines.size());
	EXPECT_EQ("1 A::soMagic5", lines[1].substr(0, lines[1].find('<')));
}

TEST_F(OpenSpans, NameThatASpanHoldsIsGivenBackAtRequestEnd) {
	ASSERT_TRUE(run_php("class A { function __call($name, $arguments) { probe(); } }"
						"$name = str_repeat('held', 9); (new A)->$name();"));
	kaq_close_open_nodes();
	const kaq_node *held = g->node_buffer->head;
	while (held && !(held->data.function_info.names & KAQ_HOLDS_FUNCTION_NAME)) {
		held = held->next;
	}
	ASSERT_NE(nullptr, held);
	zend_string *name = kaq_engine_string(held->data.function_info.function_name);
	zend_string_addref(name);
	uint32_t before = GC_REFCOUNT(name);
	kaq_free_node_buffer();
	EXPECT_EQ(before - 1, GC_REFCOUNT(name));
	zend_string_release(name);
}

/* How often the string in the script's $name is held. */
static uint32_t holders_of_name() {
	zval *name = zend_hash_str_find_ind(&EG(symbol_table), "name", strlen("name"));
	return name && Z_TYPE_P(name) == IS_STRING ? GC_REFCOUNT(Z_STR_P(name)) : 0;
}

TEST_F(OpenSpans, NameThatAnEntryHoldsIsGivenBackWhetherTheSpanStaysOrNot) {
	ASSERT_TRUE(run_php("class A { function __call($name, $arguments) { probe(); } }"
						"$name = str_repeat('held', 9); $a = new A;"));
	uint32_t before = holders_of_name();
	ASSERT_EQ(1u, before);
	struct {
		void (*probe)();
		bool is_short_of_memory;
	} cases[] = {
		{[] {}, false}, {ask_for_the_current_span, false}, {wait_long, false}, {wait_long, true}};
	for (bool is_read : {false, true}) {
		clock_is_read_each_time(is_read);
		clock_advances(0);
		for (const auto &one : cases) {
			probe = one.probe;
			kaq_node *kept = g->node_pool.free_list;
			if (one.is_short_of_memory) {
				g->node_pool.free_list = nullptr;
				allocation_fails(1);
			}
			ASSERT_TRUE(run_php("$a->$name();"));
			kaq_close_open_nodes();
			kaq_free_node_buffer();
			if (one.is_short_of_memory) {
				g->node_pool.free_list = kept;
			}
			EXPECT_EQ(before, holders_of_name());
		}
	}
}

/* A module may take a function out of the engine's table between its call and request end. */
TEST_F(OpenSpans, KeptSpanHoldsTheNameOfAnyFunction) {
	ASSERT_TRUE(run_php("function kept_and_gone() { probe(); }"));
	const zend_function *function = (const zend_function *)zend_hash_str_find_ptr(
		EG(function_table), "kept_and_gone", strlen("kept_and_gone"));
	ASSERT_NE(nullptr, function);
	zend_string *name = function->common.function_name;
	uint32_t before = GC_REFCOUNT(name);
	ASSERT_TRUE(run_php("kept_and_gone();"));
	EXPECT_EQ(ZSTR_IS_INTERNED(name) ? before : before + 1, GC_REFCOUNT(name));
	kaq_close_open_nodes();
	kaq_free_node_buffer();
	EXPECT_EQ(before, GC_REFCOUNT(name));
}

TEST_F(OpenSpans, NameThatASpanHoldsIsForgottenWithARequestThatWasNotEnded) {
	ASSERT_TRUE(run_php("class A { function __call($name, $arguments) { probe(); } }"
						"$name = str_repeat('held', 9); (new A)->$name();"));
	skip_request_end();
	start_request();
	EXPECT_EQ(nullptr, g->node_buffer->head);
}

TEST_F(OpenSpans, FunctionOfEvaldCodeKeepsItsName) {
	ASSERT_TRUE(run_php("eval('function in_eval() { probe(); }'); in_eval();"
						"eval('class InEval { function b() { probe(); } } (new InEval)->b();');"));
	EXPECT_EQ((Tree{"0 main< (2)", "1 in_eval<0 (0)", "2 InEval::b<0 (0)"}), tree());
}

TEST_F(OpenSpans, GeneratorsAreCallsPerResume) {
	ASSERT_TRUE(run_php("function gen() { yield 1; probe(); yield 2; } function a() {"
						"foreach (gen() as $x) { b(); } } function b() {} a();"));
	Tree lines = tree();
	ASSERT_EQ(3u, lines.size());
	EXPECT_EQ("1 a<0", lines[1].substr(0, 5));
	EXPECT_EQ("2 gen<1 (0)", lines[2]);
}

static void start_over(zend_kaq_globals *g) {
	kaq_free_node_buffer();
	g->node_buffer_len = 0;
	g->stored_node_count = 0;
	kaq_create_main_method();
}

/* Each way of reading the clock ends calls by a way of its own. */
TEST_F(OpenSpans, CallsThatAllStayMakeOneTreeWhateverIsReadOfTheClock) {
	probe = [] { clock_advances(1); };
	g->method_threshold = 0;
	ASSERT_TRUE(run_php("function a() { b(); probe(); b(); c(2); } function b() { probe(); }"
						"function c($n) { if ($n) { c($n - 1); } b(); }"
						"class M { static function s() { b(); probe(); } }"));
	for (bool is_read : {false, true}) {
		clock_is_read_each_time(is_read);
		clock_stands_at(1000000);
		start_over(g);
		ASSERT_TRUE(run_php("a(); M::s(); b(); b();"));
		EXPECT_EQ((Tree{"0 main< (4)", "1 a<0 (3)", "2 b<1 (0)", "3 b<1 (0)", "4 c<1 (2)",
						"5 c<4 (2)", "6 c<5 (1)", "7 b<6 (0)", "8 b<5 (0)", "9 b<4 (0)",
						"10 M::s<0 (1)", "11 b<10 (0)", "12 b<0 (0)", "13 b<0 (0)"}),
				  tree());
		EXPECT_EQ(14, g->stored_node_count);
		uint64_t lasted[14] = {};
		for (const kaq_node *node = g->node_buffer->head; node; node = node->next) {
			EXPECT_EQ(KAQ_NODE_BUFFERED, node->data.state);
			EXPECT_TRUE(node->data.is_necessary);
			lasted[node->data.key] = node->data.end_time - node->data.start_time;
		}
		EXPECT_EQ((std::vector<uint64_t>{10, 6, 1, 1, 3, 2, 1, 1, 1, 1, 2, 1, 1, 1}),
				  std::vector<uint64_t>(lasted, lasted + 14));
	}
}

TEST_F(OpenSpans, LongCallOfASpanCountsTheShortOnesInIt) {
	ASSERT_TRUE(run_php("function a() { b(); probe(); b(); b(); } function b() {} b(); a(); b();"));
	EXPECT_EQ((Tree{"0 main< (3)", "1 a<0 (3)"}), tree());
}

TEST_F(OpenSpans, WithoutMemoryForItsNodeACallOfASpanIsLost) {
	kaq_node *kept = g->node_pool.free_list;
	g->node_pool.free_list = nullptr;
	probe = [] {
		wait_long();
		allocation_fails(1);
	};
	ASSERT_TRUE(run_php("function a() { b(); probe(); } function b() {} a();"));
	EXPECT_EQ((Tree{"0 main< (2)"}), tree());
	g->node_pool.free_list = kept;
}

TEST_F(OpenSpans, DeepCallHasAllItsCallers) {
	ASSERT_TRUE(run_php("function f($n) { if ($n) { f($n - 1); } else { probe(); } } f(4999);"));
	Tree lines = tree();
	ASSERT_EQ(5001u, lines.size());
	EXPECT_EQ("1 f<0 (1)", lines[1]);
	EXPECT_EQ("5000 f<4999 (0)", lines[5000]);
}

TEST_F(OpenSpans, StackOfADeepRequestGoesBackToTheHeap) {
	ASSERT_TRUE(run_php("function f($n) { if ($n) { f($n - 1); } } f(9999);"));
	EXPECT_LE(10000 * sizeof(kaq_open_span), g->open_spans.allocated);
	kaq_close_open_nodes();
	kaq_free_node_buffer();
	EXPECT_EQ(0u, g->open_spans.allocated);
}

TEST_F(OpenSpans, AnOpenCallTakes32Bytes) {
	EXPECT_EQ(32u, sizeof(kaq_open_span));
}

TEST_F(OpenSpans, WithoutMemoryForTheStackTheTreeIsTheSame) {
	const char *calls = "f(600); g();";
	ASSERT_TRUE(run_php("function f($n) { g(); if ($n) { f($n - 1); } else { probe(); } g(); }"
						"function g() {}"));
	ASSERT_TRUE(run_php(calls));
	Tree expected = tree();
	ASSERT_EQ(602u, expected.size());
	start_over(g);
	probe = [] {
		wait_long();
		EXPECT_TRUE(now->open_spans.is_plain);
	};
	allocation_fails(1);
	ASSERT_TRUE(run_php(calls));
	EXPECT_EQ(expected, tree());
	EXPECT_FALSE(g->open_spans.is_plain) << "the next request begins anew";
}

TEST_F(OpenSpans, WithoutMemoryForANodeTheCallsWithinBelongToItsCaller) {
	ASSERT_TRUE(run_php("function a() { b(); } function b() { c(); } function c() { probe(); }"));
	kaq_node *kept = g->node_pool.free_list;
	g->node_pool.free_list = nullptr;
	allocation_fails(1);
	ASSERT_TRUE(run_php("a();"));
	EXPECT_EQ((Tree{"0 main< (2)", "1 b<0 (1)", "2 c<1 (0)"}), tree());
	now->node_pool.free_list->next = kept;
}

TEST_F(OpenSpans, CallsThatWereCutOffStayOpenUntilTheRequestEnds) {
	ASSERT_TRUE(run_php("function a() { b(); } function b() { probe(); } function c() { d(); }"
						"function d() {}"));
	kaq_node *outer = open_span("outer");
	probe = [] { zend_bailout(); };
	zend_execute_data *frame = EG(current_execute_data);
	ASSERT_TRUE(dies_in_php("a();"));
	EG(current_execute_data) = frame;
	CG(unclean_shutdown) = 0;
	kaq_close_node(outer);
	EXPECT_EQ(0u, g->current_node->data.key);
	probe = wait_long;
	ASSERT_TRUE(run_php("c(); b();"));
	EXPECT_EQ((Tree{"0 main< (3)", "1 outer<0 (1)", "2 a<1 (1)", "3 b<2 (0)", "4 b<0 (0)"}),
			  tree());
}

static void die_deep() {
	zend_bailout();
}

/* What an instrumented call that is not recorded does with a bailout of the code it ran. */
static void swallow_the_end_of_a_call() {
	kaq_engine_state state;
	kaq_note_engine_state(&state);
	probe = die_deep;
	zend_execute_data *frame = EG(current_execute_data);
	zend_try {
		zend_eval_string((char *)"cut();", nullptr, (char *)"test");
	}
	zend_end_try();
	EG(current_execute_data) = frame;
	kaq_return_from_bailout(&state);
	kaq_forget_engine_state(&state);
	CG(unclean_shutdown) = 0;
}

TEST_F(OpenSpans, ShortCallStaysWhileACallThatWasCutOffWithinItIsOpen) {
	ASSERT_TRUE(run_php("function outer() { probe(); } function cut() { probe(); }"));
	probe = swallow_the_end_of_a_call;
	ASSERT_TRUE(run_php("outer();"));
	EXPECT_EQ(3, g->node_buffer_len);
	EXPECT_EQ((Tree{"0 main< (1)", "1 outer<0 (1)"}), tree());
}

TEST_F(OpenSpans, ChildrenOfAnInstrumentedCallAreCounted) {
	kaq_node *call = open_span("call", 0, "HTTP");
	ASSERT_TRUE(run_php("function callback() { inner(); } function inner() {}"
						"callback(); callback();"));
	kaq_close_node(call);
	EXPECT_EQ((Tree{"0 main< (1)", "1 call<0 (2)"}), tree());
}

TEST_F(OpenSpans, EntriesOfARequestThatWasNotEndedAreForgotten) {
	probe = die_deep;
	zend_execute_data *frame = EG(current_execute_data);
	ASSERT_TRUE(dies_in_php("function cut() { probe(); } cut();"));
	EG(current_execute_data) = frame;
	CG(unclean_shutdown) = 0;
	EXPECT_LT(sizeof(kaq_open_span), g->open_spans.top) << "that of main is the first";
	skip_request_end();
	start_request();
	EXPECT_EQ(0u, g->open_spans.top);
	EXPECT_EQ(nullptr, g->current_node);
}

TEST_F(OpenSpans, CallThatEndsAfterItsCallerIsStillItsOwnSpan) {
	ASSERT_TRUE(run_php("function a() { b(); } function b() { probe(); }"));
	/* As a module does that switches C stacks: the outer call ends first. */
	probe = [] {
		kaq_node *b = kaq_current_node(now);
		wait_long();
		kaq_close_node(b->data.parent);
		wait_long();
	};
	ASSERT_TRUE(run_php("a();"));
	const kaq_node *b = g->node_buffer->head;
	EXPECT_EQ("b", name_of(b));
	EXPECT_EQ(1000100u, b->data.end_time);
	EXPECT_EQ("a", name_of(b->next));
	EXPECT_EQ(1000050u, b->next->data.end_time);
	EXPECT_TRUE(g->open_spans.is_plain);
	EXPECT_EQ((Tree{"0 main< (1)", "1 a<0 (1)", "2 b<1 (0)"}), tree());
}

TEST_F(OpenSpans, WithFibersEveryCallGetsItsNodeAtOnce) {
	void *from = nullptr;
	void *to = nullptr;
	ASSERT_TRUE(
		run_php("function a() { b(); c(); b(); } function b() {} function c() { probe(); }"));
	static void **slots[2];
	slots[0] = &from;
	slots[1] = &to;
	probe = [] {
		kaq_switch_fiber(slots[0], slots[1]);
		EXPECT_NE(nullptr, now->current_node);
		EXPECT_EQ("c", name_of(now->current_node));
	};
	ASSERT_TRUE(run_php("a(); a();"));
	EXPECT_EQ((Tree{"0 main< (2)"}), tree());
}
