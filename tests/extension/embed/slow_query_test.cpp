/* Which slow queries get the call stack: instrumented calls within a running script. */
#include "engine.h"

#include <stdlib.h>
#include <string.h>

#include "instrumentation/kaq_instrumentation.h"

class SlowQuery : public SpanTest {
protected:
	void SetUp() override {
		SpanTest::SetUp();
		now_ = this;
		probe = [] { now_->call_one(); };
		g->sql_trace_threshold = 3.0f;
	}

	bool has_trace(uint64_t duration, int type = DBQUERY, const char *component = "MYSQL") {
		duration_ = duration;
		type_ = type;
		component_ = component;
		EXPECT_TRUE(
			run_php("if (!function_exists('slow_caller')) { function slow_caller() { probe(); } }"
					"slow_caller();"));
		return !trace_.empty();
	}

	bool with_child_ = false;
	const char *earlier_trace_ = nullptr;
	std::string trace_;

private:
	void call_one() {
		kaq_internalfn_t record = {};
		record.oldhandler = [](zend_execute_data *, zval *) {};
		record.inner_wrapper = [](zend_execute_data *, zval *, kaq_internalfn_t *, kaq_node *node) {
			now_->describe(node);
		};
		zval result;
		g->control_signal = 1;
		kaq_instrument_delegate(&record, EG(current_execute_data), &result);
		g->control_signal = 0;
		const char *trace = kaq_arguments_of(&node_->data.function_info)->stacktrace;
		trace_ = trace ? trace : "";
	}

	void describe(kaq_node *node) {
		kaq_function *fi = &node->data.function_info;
		node_ = node;
		node->data.start_time -= duration_;
		kaq_copy_function_info(fi, nullptr, "query", component_, EXTERNAL);
		fi->type = type_;
		fi->priority = PRIORITY_1;
		kaq_arguments_of(fi)->stacktrace = earlier_trace_ ? strdup(earlier_trace_) : nullptr;
		if (with_child_) {
			span_of("child", 50);
		}
	}

	kaq_node *node_ = nullptr;
	static SlowQuery *now_;
	uint64_t duration_ = 0;
	int type_ = DBQUERY;
	const char *component_ = "";
};

SlowQuery *SlowQuery::now_;

TEST_F(SlowQuery, FourSecondsGetAStackTraceThatNamesTheCaller) {
	EXPECT_TRUE(has_trace(4000));
	EXPECT_NE(std::string::npos, trace_.find("\"slow_caller\"")) << trace_;
}

TEST_F(SlowQuery, ExactlyThreeSecondsGetNone) {
	EXPECT_FALSE(has_trace(3000));
}

TEST_F(SlowQuery, OneMillisecondOverTheThresholdGetsOne) {
	EXPECT_TRUE(has_trace(3001));
}

TEST_F(SlowQuery, FractionOfASecondAsThreshold) {
	g->sql_trace_threshold = 0.25f;
	EXPECT_FALSE(has_trace(250));
	EXPECT_TRUE(has_trace(251));
}

TEST_F(SlowQuery, ThresholdZeroTracesWhatTakesAnyTimeAtAll) {
	g->sql_trace_threshold = 0.0f;
	EXPECT_FALSE(has_trace(0));
	EXPECT_TRUE(has_trace(1));
}

TEST_F(SlowQuery, NegativeThresholdTracesEveryQuery) {
	g->sql_trace_threshold = -1.0f;
	EXPECT_TRUE(has_trace(0));
}

TEST_F(SlowQuery, OnlyQueriesAreTraced) {
	EXPECT_FALSE(has_trace(9000, NONE));
	EXPECT_FALSE(has_trace(9000, URL));
	EXPECT_FALSE(has_trace(9000, DBCONNECT));
}

TEST_F(SlowQuery, UserCodeIsNeverTraced) {
	EXPECT_FALSE(has_trace(9000, DBQUERY, "PHP"));
}

TEST_F(SlowQuery, QueryWithARemainingDescendantIsNotTraced) {
	with_child_ = true;
	EXPECT_FALSE(has_trace(9000));
}

TEST_F(SlowQuery, TraceThatAnErrorLeftBeforeStays) {
	earlier_trace_ = "earlier";
	EXPECT_TRUE(has_trace(9000));
	EXPECT_EQ("earlier", trace_);
}
