/* The execute hook, the capture of a function's names, the root span and the CPU time. */
#include "engine.h"

#include <memory>
#include <string.h>

#include "spans/kaq_execute.h"
#include "util/kaq_strings.h"
#include "wire/payload.h"

/* A frame as the engine hands it to the hook. */
struct Frame {
	zend_execute_data data;
	zend_function function;
	zend_class_entry scope;

	Frame(const char *class_name, const char *function_name) {
		memset(this, 0, sizeof(*this));
		data.func = &function;
		function.type = ZEND_USER_FUNCTION;
		if (function_name) {
			function.common.function_name =
				zend_string_init(function_name, strlen(function_name), 0);
		}
		if (class_name) {
			scope.name = zend_string_init(class_name, strlen(class_name), 0);
			function.common.scope = &scope;
		}
	}

	~Frame() {
		if (function.common.function_name) {
			zend_string_release(function.common.function_name);
		}
		if (scope.name) {
			zend_string_release(scope.name);
		}
	}
};

/* With the millisecond known to last, which is a path of its own, and with the clock to be read. */
class Execute : public SpanTest, public ::testing::WithParamInterface<bool> {
protected:
	void SetUp() override {
		SpanTest::SetUp();
		clock_is_read_each_time(GetParam());
		clock_advances(0);
		now_ = this;
		saved_ = old_execute_ex;
		old_execute_ex = [](zend_execute_data *frame) { now_->chained(frame); };
		g->control_signal = 1;
	}

	void TearDown() override {
		g->control_signal = 0;
		old_execute_ex = saved_;
		kaq_free_node_buffer();
		frames_.clear();
		SpanTest::TearDown();
	}

	/* One call that lasts `duration_` ms. */
	void call(const char *name = "f") {
		frames_.emplace_back(new Frame(nullptr, name));
		expected_ = &frames_.back()->data;
		kaq_execute_ex(expected_);
	}

	uint64_t duration_ = 50;
	int calls_ = 0;
	kaq_node *current_within_ = nullptr;
	int state_within_ = -1;
	bool asks_within_ = true;
	bool closes_within_ = false;
	bool bails_out_ = false;
	zend_execute_data *expected_ = nullptr;

private:
	void chained(zend_execute_data *frame) {
		calls_++;
		EXPECT_EQ(expected_, frame);
		if (asks_within_) {
			current_within_ = kaq_current_node(g);
			state_within_ = current_within_ ? current_within_->data.state : -1;
		}
		clock_advances(duration_);
		if (closes_within_) {
			kaq_close_node(current_within_);
		}
		if (bails_out_) {
			zend_bailout();
		}
	}

	static Execute *now_;
	std::vector<std::unique_ptr<Frame>> frames_; /* functions live until their request has ended */
	void (*saved_)(zend_execute_data *) = nullptr;
};

Execute *Execute::now_;

TEST_P(Execute, NoFrameOrNoFunctionOrNoNameGivesNoSpan) {
	EXPECT_EQ(nullptr, kaq_populate_function(nullptr));
	Frame nameless(nullptr, nullptr);
	EXPECT_EQ(nullptr, kaq_populate_function(&nameless.data));
	Frame nameless_method("A", nullptr);
	EXPECT_EQ(nullptr, kaq_populate_function(&nameless_method.data));
	nameless.data.func = nullptr;
	EXPECT_EQ(nullptr, kaq_populate_function(&nameless.data));
}

TEST_P(Execute, FunctionGivesItsNameAndNoClass) {
	Frame frame(nullptr, "calc");
	kaq_node *node = kaq_populate_function(&frame.data);
	const kaq_function &fi = node->data.function_info;
	EXPECT_EQ(nullptr, fi.class_name);
	EXPECT_STREQ("calc", fi.function_name);
	EXPECT_STREQ("PHP", fi.component_name);
	EXPECT_EQ(0, fi.isExternal);
	EXPECT_EQ(PRIORITY_0, fi.priority);
	EXPECT_EQ(KAQ_NODE_CREATED, node->data.state);
	kaq_free_node(node);
}

TEST_P(Execute, MethodGivesTheClassOfItsScope) {
	Frame frame("A\\B", "b");
	kaq_node *node = kaq_populate_function(&frame.data);
	EXPECT_STREQ("A\\B", node->data.function_info.class_name);
	EXPECT_STREQ("b", node->data.function_info.function_name);
	kaq_free_node(node);
}

TEST_P(Execute, NamesAreCopies) {
	kaq_node *node;
	{
		Frame frame("Gone", "gone");
		node = kaq_populate_function(&frame.data);
	}
	EXPECT_STREQ("Gone", node->data.function_info.class_name);
	EXPECT_STREQ("gone", node->data.function_info.function_name);
	kaq_free_node(node);
}

TEST_P(Execute, SpanIsOpenDuringTheCallAndBufferedAfterwards) {
	call();
	EXPECT_EQ(1, calls_);
	ASSERT_NE(nullptr, current_within_);
	EXPECT_EQ(KAQ_NODE_OPEN, state_within_);
	EXPECT_EQ((std::vector<std::string>{"f"}), buffered());
	EXPECT_EQ(nullptr, g->current_node);
	const struct kaq_node_data &data = g->node_buffer->head->data;
	EXPECT_EQ(50u, data.end_time - data.start_time);
}

TEST_P(Execute, CallWithoutANameIsChainedAndGivesNoSpan) {
	call(nullptr);
	EXPECT_EQ(1, calls_);
	EXPECT_EQ(nullptr, current_within_);
	EXPECT_EQ(0, g->node_buffer_len);
}

TEST_P(Execute, CallInARequestThatIsNotMonitoredIsChainedAndOpensNoSpan) {
	g->control_signal = 0;
	call();
	EXPECT_EQ(1, calls_);
	EXPECT_EQ(nullptr, current_within_);
	EXPECT_EQ(0, g->node_buffer_len);
	EXPECT_EQ(0, g->stored_node_count);
}

TEST_P(Execute, LimitCountsSpansInTheBuffer) {
	g->span_limit = 2;
	for (int i = 0; i < 5; i++) {
		call();
	}
	EXPECT_EQ(5, calls_);
	EXPECT_EQ(2, g->stored_node_count);
	EXPECT_EQ(nullptr, current_within_) << "the last calls ran unrecorded";
}

TEST_P(Execute, LimitZeroAndBelowRecordsNothingAndStillChains) {
	for (int limit : {0, -1}) {
		g->span_limit = limit;
		call();
		EXPECT_EQ(0, g->stored_node_count);
		EXPECT_EQ(0, g->node_buffer_len);
	}
	EXPECT_EQ(2, calls_);
}

TEST_P(Execute, DroppedSpansDoNotCountTowardsTheLimit) {
	g->span_limit = 1;
	open_span("root");
	duration_ = 0;
	for (int i = 0; i < 20; i++) {
		call();
		EXPECT_NE(nullptr, current_within_);
	}
	duration_ = 50;
	call();
	EXPECT_EQ(1, g->stored_node_count);
}

TEST_P(Execute, OpenSpansDoNotCountAndAreStillBufferedBeyondTheLimit) {
	g->span_limit = 1;
	open_span("outer", 50);
	open_span("inner", 50);
	call();
	EXPECT_EQ(1, g->stored_node_count);
	kaq_close_open_nodes();
	EXPECT_EQ(3, g->stored_node_count);
}

TEST_P(Execute, SpanThatWasClosedDuringTheCallIsNotClosedAgain) {
	closes_within_ = true;
	call();
	EXPECT_EQ(1, g->stored_node_count);
	EXPECT_EQ((std::vector<std::string>{"f"}), buffered());
}

TEST_P(Execute, BailoutLeavesTheSpanOpen) {
	bails_out_ = true;
	volatile bool caught = true;
	zend_try {
		call();
		caught = false;
	}
	zend_end_try();
	CG(unclean_shutdown) = 0;
	EXPECT_TRUE(caught);
	ASSERT_NE(nullptr, g->current_node);
	EXPECT_EQ(KAQ_NODE_OPEN, g->current_node->data.state);
	EXPECT_EQ(0, g->stored_node_count);
}

TEST_P(Execute, NoMemoryForASpanStillChains) {
	call("warms the stack up");
	kaq_node *kept = g->node_pool.free_list;
	g->node_pool.free_list = nullptr;
	allocation_fails(1);
	call();
	g->node_pool.free_list = kept;
	EXPECT_EQ(2, calls_);
	EXPECT_EQ(nullptr, current_within_);
	EXPECT_EQ(1, g->stored_node_count);
}

TEST_P(Execute, LongCallIsBufferedThoughNobodyAskedForItsSpan) {
	asks_within_ = false;
	call();
	EXPECT_EQ((std::vector<std::string>{"f"}), buffered());
	const struct kaq_node_data &data = g->node_buffer->head->data;
	EXPECT_EQ(1000000u, data.start_time);
	EXPECT_EQ(1000050u, data.end_time);
	EXPECT_EQ(0, data.key);
}

TEST_P(Execute, ShortCallTakesNoRecord) {
	asks_within_ = false;
	duration_ = 9;
	open_span("root");
	const kaq_node *next = g->node_pool.free_list;
	call();
	EXPECT_EQ(1, calls_);
	EXPECT_EQ(next, g->node_pool.free_list);
	EXPECT_EQ(1, g->node_buffer_len);
	duration_ = 10;
	call();
	EXPECT_EQ((std::vector<std::string>{"f"}), buffered()) << "the threshold itself is long";
}

INSTANTIATE_TEST_SUITE_P(Clock, Execute, ::testing::Bool());

/* What a script's calls look like. */
class ExecuteScript : public SpanTest {
protected:
	void SetUp() override {
		SpanTest::SetUp();
		g->control_signal = 1;
	}

	void TearDown() override {
		g->control_signal = 0;
		SpanTest::TearDown();
	}
};

TEST_F(ExecuteScript, EveryNamedCallIsASpanAndTopLevelCodeIsNot) {
	g->method_threshold = 0;
	EXPECT_TRUE(run_php("class A { static function b() { return 1; } function c() { self::b(); } }"
						"class B extends A {}"
						"function f($n) { if ($n) { f($n - 1); } }"
						"A::b(); (new B)->c(); f(1); (function () {})(); eval('f(0);');"));
	std::vector<std::string> names;
	for (const kaq_node *node = g->node_buffer->head; node; node = node->next) {
		const kaq_function &fi = node->data.function_info;
		std::string name = fi.class_name ? std::string(fi.class_name) + "::" : "";
		names.insert(names.begin(), name + fi.function_name);
	}
	EXPECT_EQ((std::vector<std::string>{"A::b", "A::b", "A::c", "f", "f", "{closure}", "f"}),
			  names);
}

TEST_F(ExecuteScript, NestingFollowsTheCalls) {
	g->method_threshold = 0;
	EXPECT_TRUE(run_php("function a() { b(); c(); } function b() {} function c() {} a();"));
	ASSERT_EQ((std::vector<std::string>{"a", "c", "b"}), buffered());
	const kaq_node *a = g->node_buffer->head;
	EXPECT_EQ(a, a->next->data.parent);
	EXPECT_EQ(a, a->next->next->data.parent);
	EXPECT_EQ(0, a->data.key);
	EXPECT_EQ(2, a->next->data.key);
}

/* The root span. */
class RootSpan : public SpanTest {
protected:
	void SetUp() override {
		SpanTest::SetUp();
		kaq_create_main_method();
		root = g->current_node;
	}

	std::string members() {
		smart_str out = {nullptr, 0};
		kaq_form_root_method_info(root, &out);
		return take_buffer(&out);
	}

	kaq_node *root = nullptr;
};

TEST_F(RootSpan, IsMainWithKeyZeroAndPriority) {
	const kaq_function &fi = root->data.function_info;
	EXPECT_EQ(nullptr, fi.class_name);
	EXPECT_STREQ("main", fi.function_name);
	EXPECT_STREQ("PHP", fi.component_name);
	EXPECT_EQ(0, fi.isExternal);
	EXPECT_EQ(PRIORITY_1, fi.priority);
	EXPECT_EQ(0, root->data.key);
	EXPECT_EQ(nullptr, root->data.parent);
	EXPECT_EQ(KAQ_NODE_OPEN, root->data.state);
}

TEST_F(RootSpan, IsNecessaryHoweverShort) {
	kaq_close_node(root);
	EXPECT_EQ(1, root->data.is_necessary);
}

TEST_F(RootSpan, OpensDespiteASpanLimitOfZero) {
	kaq_free_node_buffer();
	g->node_buffer_len = 0;
	g->span_limit = 0;
	kaq_create_main_method();
	EXPECT_NE(nullptr, g->current_node);
}

TEST_F(RootSpan, WithoutACallerHasNoParentId) {
	g->root_parentspanid[0] = '\0';
	EXPECT_EQ("\"st\":1000000,\"et\":0,\"mo\":0,\"pr\":1,\"fn\":\"main\",\"cn\":\"PHP\"",
			  members());
}

TEST_F(RootSpan, CallersSpanIdComesLastWithinTheObject) {
	kaq_copy_bounded(g->root_parentspanid, 17, "00f067aa0ba902b7");
	kaq_set_external_call_status(&root->data.function_info, 500);
	EXPECT_EQ("\"st\":1000000,\"et\":0,\"mo\":0,\"pr\":1,\"fn\":\"main\",\"cn\":\"PHP\","
			  "\"esc\":500,\"psi\":\"00f067aa0ba902b7\"",
			  members());
}

TEST_F(RootSpan, CallersSpanIdIsEscaped) {
	kaq_copy_bounded(g->root_parentspanid, 17, "a/\"b");
	EXPECT_NE(std::string::npos, members().find(",\"psi\":\"a\\/\\\"b\""));
}

TEST_F(RootSpan, ProfilingFunctionsAreToldByTheirName) {
	kaq_function *fi = &root->data.function_info;
	EXPECT_EQ(0, kaq_is_profiling_function(nullptr));
	EXPECT_EQ(0, kaq_is_profiling_function(root));
	kaq_update_method_name(fi, "my_kaq_start_2");
	EXPECT_EQ(1, kaq_is_profiling_function(root));
	kaq_update_method_name(fi, "kaq_end");
	EXPECT_EQ(1, kaq_is_profiling_function(root));
	kaq_update_method_name(fi, "kaq_en");
	EXPECT_EQ(0, kaq_is_profiling_function(root));
	kaq_update_method_name(fi, nullptr);
	EXPECT_EQ(0, kaq_is_profiling_function(root));
}

/* CPU time. */
class CpuTime : public SpanTest {};

TEST_F(CpuTime, IsUserPlusSystemSinceTheStartInMilliseconds) {
	cpu_times_are(1, 200999, 0, 999);
	EXPECT_EQ(0, kaq_cpu_usage_start());
	EXPECT_EQ(1200u, g->cpu_time->user_start_time);
	EXPECT_EQ(0u, g->cpu_time->sys_start_time);
	cpu_times_are(3, 1000, 0, 45000);
	EXPECT_EQ(0, kaq_cpu_usage_end());
	EXPECT_EQ(3001u, g->cpu_time->user_end_time);
	EXPECT_EQ(45u, g->cpu_time->sys_end_time);
	EXPECT_EQ(1801u + 45u, g->cpu_time->total_time);
}

TEST_F(CpuTime, PartThatRanBackwardsCountsAsZero) {
	cpu_times_are(5, 0, 1, 0);
	kaq_cpu_usage_start();
	cpu_times_are(4, 0, 1, 7000);
	kaq_cpu_usage_end();
	EXPECT_EQ(7u, g->cpu_time->total_time);
}

TEST_F(CpuTime, RefusalAtTheStartLeavesZeros) {
	cpu_times_are(5, 0, 1, 0);
	kaq_cpu_usage_start();
	cpu_times_are_refused();
	EXPECT_EQ(-1, kaq_cpu_usage_start());
	EXPECT_EQ(0u, g->cpu_time->user_start_time);
	EXPECT_EQ(0u, g->cpu_time->sys_start_time);
}

TEST_F(CpuTime, RefusalAtTheEndLeavesZeros) {
	cpu_times_are(5, 0, 1, 0);
	kaq_cpu_usage_start();
	cpu_times_are(6, 0, 1, 0);
	kaq_cpu_usage_end();
	ASSERT_EQ(1000u, g->cpu_time->total_time);
	cpu_times_are_refused();
	EXPECT_EQ(-1, kaq_cpu_usage_end());
	EXPECT_EQ(0u, g->cpu_time->user_end_time);
	EXPECT_EQ(0u, g->cpu_time->sys_end_time);
	EXPECT_EQ(0u, g->cpu_time->total_time);
}
