/* Which spans are kept at close, and whose keys come back. */
#include "engine.h"

#include <limits.h>

class KeepRule : public SpanTest {
protected:
	void SetUp() override {
		SpanTest::SetUp();
		open_span("root");
	}

	/* A short user-code span with one thing changed before it is closed. */
	template <typename Change> bool is_kept(Change change) {
		kaq_node *node = open_span("short", 1);
		change(node->data.function_info);
		int stored = g->stored_node_count;
		kaq_close_node(node);
		return g->stored_node_count > stored && node->data.is_necessary == 1;
	}

	static void nothing(kaq_function &) {
	}
};

TEST_F(KeepRule, ShorterThanTheThresholdIsDropped) {
	EXPECT_EQ(10, g->method_threshold);
	EXPECT_EQ(nullptr, span_of("nine", 9));
	EXPECT_EQ(0, g->stored_node_count);
}

TEST_F(KeepRule, ExactlyTheThresholdIsKept) {
	kaq_node *node = span_of("ten", 10);
	ASSERT_NE(nullptr, node);
	EXPECT_EQ(1, node->data.is_necessary);
}

TEST_F(KeepRule, ThresholdZeroKeepsEverything) {
	g->method_threshold = 0;
	EXPECT_NE(nullptr, span_of("instant", 0));
}

TEST_F(KeepRule, ClockThatRanBackwardsGivesANegativeDurationAndDrops) {
	g->method_threshold = 0;
	EXPECT_EQ(nullptr, span_of("backwards", (uint64_t)-1));
	g->method_threshold = -1;
	EXPECT_NE(nullptr, span_of("backwards", (uint64_t)-1));
}

TEST_F(KeepRule, DurationBeyondAnIntIsComparedInFull) {
	g->method_threshold = INT_MAX;
	EXPECT_EQ(nullptr, span_of("long", (uint64_t)INT_MAX - 1));
	clock_stands_at(5000000000000);
	EXPECT_NE(nullptr, span_of("longer", (uint64_t)1 << 32));
}

TEST_F(KeepRule, FaultKeeps) {
	EXPECT_FALSE(is_kept(nothing));
	EXPECT_TRUE(is_kept([](kaq_function &fi) { fi.isFault = 1; }));
}

TEST_F(KeepRule, ErrorKeeps) {
	EXPECT_TRUE(is_kept([](kaq_function &fi) { fi.isError = 1; }));
}

TEST_F(KeepRule, PriorityKeeps) {
	EXPECT_TRUE(is_kept([](kaq_function &fi) { fi.priority = PRIORITY_1; }));
}

TEST_F(KeepRule, ComponentOtherThanUserCodeKeeps) {
	for (const char *component : {"HTTP", "", "php", "PH", "PHPX", "MYSQL"}) {
		EXPECT_NE(nullptr, span_of("call", 0, component)) << component;
	}
}

TEST_F(KeepRule, NothingElseOfASpanKeepsIt) {
	EXPECT_FALSE(is_kept([](kaq_function &fi) {
		fi.isExternal = EXTERNAL;
		fi.isAsync = 1;
		kaq_set_method_dbquery(&fi, "SELECT 1");
		kaq_set_external_call_status(&fi, 500);
	}));
}

TEST_F(KeepRule, RootIsBufferedEvenWhenUnnecessary) {
	kaq_node *root = g->current_node;
	kaq_close_node(root);
	EXPECT_EQ((std::vector<std::string>{"root"}), buffered());
	EXPECT_EQ(0, root->data.is_necessary);
	EXPECT_EQ(KAQ_NODE_BUFFERED, root->data.state);
	EXPECT_EQ(1, g->node_buffer_len);
}

TEST_F(KeepRule, DroppedSpanGivesItsKeyToTheNext) {
	span_of("first", 3);
	EXPECT_EQ(1, g->node_buffer_len);
	kaq_node *second = open_span("second");
	EXPECT_EQ(1, second->data.key);
}

TEST_F(KeepRule, ShortParentOfAKeptCallStaysAlthoughUnnecessary) {
	kaq_node *parent = open_span("parent", 3);
	kaq_node *query = span_of("query", 1, "MYSQL");
	kaq_close_node(parent);
	EXPECT_EQ((std::vector<std::string>{"parent", "query"}), buffered());
	EXPECT_EQ(0, parent->data.is_necessary);
	EXPECT_EQ(parent, query->data.parent);
	EXPECT_EQ(3, g->node_buffer_len);
}

TEST_F(KeepRule, ParentWhoseChildrenWereAllDroppedIsJudgedLikeALeaf) {
	open_span("parent", 3);
	span_of("child", 1);
	span_of("child", 1);
	kaq_close_node(g->current_node);
	EXPECT_TRUE(buffered().empty());
	EXPECT_EQ(1, g->node_buffer_len);
}

TEST_F(KeepRule, ShortChainsCollapseFromTheBottomUp) {
	for (int i = 0; i < 5; i++) {
		open_span("link", 2);
	}
	EXPECT_EQ(6, g->node_buffer_len);
	for (int i = 0; i < 5; i++) {
		kaq_close_node(g->current_node);
	}
	EXPECT_EQ(1, g->node_buffer_len);
	EXPECT_EQ(0, g->stored_node_count);
}

TEST_F(KeepRule, ShortSpanAfterAKeptOneIsDroppedAndTheKeptOneKeepsItsKey) {
	kaq_node *kept = span_of("kept", 20);
	EXPECT_EQ(nullptr, span_of("short", 1));
	EXPECT_EQ(1, kept->data.key);
	EXPECT_EQ(2, g->node_buffer_len);
	EXPECT_EQ(2, span_of("next", 20)->data.key);
}
