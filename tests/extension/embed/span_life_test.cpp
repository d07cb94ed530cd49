/* Spans: created, opened, closed, buffered, freed. */
#include "engine.h"

#include <string.h>

#include "spans/kaq_execute.h"

class SpanLife : public SpanTest {};

static void fill_every_text(kaq_node *node) {
	kaq_function *fi = &node->data.function_info;
	std::string long_name(200, 'n');
	kaq_copy_function_info(fi, long_name.c_str(), long_name.c_str(), "HTTP", EXTERNAL);
	kaq_set_method_dbconnect(fi, "db1", 3306);
	kaq_set_method_dbname(fi, "shop");
	kaq_set_method_url(fi, "http://h/");
	kaq_set_method_dbquery(fi, "SELECT 1");
	kaq_arguments_of(fi)->externalReqHeaders = strdup("{}");
	kaq_arguments_of(fi)->externalResHeaders = strdup("{}");
	kaq_arguments_of(fi)->stacktrace = strdup("[]");
	kaq_buf_literal(&kaq_arguments_of(fi)->einfo, "{}");
}

TEST_F(SpanLife, NewSpanIsAllZeroWithoutParentOrLink) {
	kaq_node *node = kaq_create_new_node();
	static const struct kaq_node_data zero = {};
	EXPECT_EQ(0, memcmp(&zero, &node->data, sizeof(zero)));
	EXPECT_EQ(nullptr, node->next);
	EXPECT_EQ(KAQ_NODE_CREATED, node->data.state);
	EXPECT_EQ(nullptr, node->data.parent);
	EXPECT_STREQ("", node->data.function_info.span_id);
	kaq_free_node(node);
}

TEST_F(SpanLife, ReusedRecordIsAllZeroAgain) {
	kaq_node *first = kaq_create_new_node();
	fill_every_text(first);
	kaq_open_node(first);
	memset(first->data.function_info.span_id, 'a', KAQ_SPAN_ID_LENGTH);
	kaq_free_node(first);
	g->current_node = nullptr;
	kaq_node *second = kaq_create_new_node();
	ASSERT_EQ(first, second);
	static const struct kaq_node_data zero = {};
	EXPECT_EQ(0, memcmp(&zero, &second->data, sizeof(zero)));
	EXPECT_EQ(nullptr, second->next);
	kaq_free_node(second);
}

TEST_F(SpanLife, OpenSetsTimeStateKeyAndCurrentSpan) {
	clock_stands_at(1700000000123);
	kaq_node *node = kaq_create_new_node();
	kaq_open_node(node);
	EXPECT_EQ(1700000000123u, node->data.start_time);
	EXPECT_EQ(0u, node->data.end_time);
	EXPECT_EQ(KAQ_NODE_OPEN, node->data.state);
	EXPECT_EQ(0, node->data.key);
	EXPECT_EQ(nullptr, node->data.parent);
	EXPECT_EQ(0, node->data.child_count);
	EXPECT_EQ(node, g->current_node);
	EXPECT_EQ(1, g->node_buffer_len);
	EXPECT_EQ(0, g->stored_node_count);
	EXPECT_EQ(nullptr, g->node_buffer->head);
}

TEST_F(SpanLife, OpenMakesTheCurrentSpanTheParentAndCountsOneChildThere) {
	kaq_node *root = open_span("root");
	kaq_node *child = open_span("child");
	kaq_node *grandchild = open_span("grandchild");
	EXPECT_EQ(root, child->data.parent);
	EXPECT_EQ(child, grandchild->data.parent);
	EXPECT_EQ(1, root->data.child_count);
	EXPECT_EQ(1, child->data.child_count);
	EXPECT_EQ(0, grandchild->data.child_count);
	EXPECT_EQ(1, child->data.key);
	EXPECT_EQ(2, grandchild->data.key);
	EXPECT_EQ(grandchild, g->current_node);
	EXPECT_EQ(3, g->node_buffer_len);
}

TEST_F(SpanLife, ChildCountIsNotTakenBackWhenAChildIsDropped) {
	kaq_node *root = open_span("root");
	EXPECT_EQ(nullptr, span_of("short", 1));
	EXPECT_EQ(nullptr, span_of("short", 1));
	EXPECT_EQ(2, root->data.child_count);
}

TEST_F(SpanLife, CloseSetsEndTimeAndStateAndGoesBackToTheParent) {
	kaq_node *root = open_span("root");
	kaq_node *child = open_span("child");
	clock_advances(25);
	kaq_close_node(child);
	EXPECT_EQ(root, g->current_node);
	EXPECT_EQ(1000000u, child->data.start_time);
	EXPECT_EQ(1000025u, child->data.end_time);
	EXPECT_EQ(KAQ_NODE_BUFFERED, child->data.state);
	EXPECT_EQ(1, child->data.is_necessary);
	EXPECT_EQ(child, g->node_buffer->head);
	EXPECT_EQ(1, g->stored_node_count);
	kaq_close_node(root);
	EXPECT_EQ(nullptr, g->current_node);
}

TEST_F(SpanLife, CloseOfAnOuterSpanMakesItsOwnParentCurrent) {
	kaq_node *root = open_span("root");
	kaq_node *outer = open_span("outer");
	kaq_node *inner = open_span("inner");
	kaq_close_node(outer);
	EXPECT_EQ(root, g->current_node);
	EXPECT_EQ(KAQ_NODE_OPEN, inner->data.state);
	EXPECT_EQ(KAQ_NODE_BUFFERED, outer->data.state) << "it has a descendant left";
}

TEST_F(SpanLife, BufferRunsFromTheMostRecentToTheFirst) {
	open_span("root");
	span_of("a", 20);
	span_of("b", 20);
	kaq_close_node(g->current_node);
	EXPECT_EQ((std::vector<std::string>{"root", "b", "a"}), buffered());
	EXPECT_EQ(3, g->stored_node_count);
	EXPECT_EQ(3, g->node_buffer_len);
}

TEST_F(SpanLife, InsertPushesAtTheHeadAndCountsAndTouchesNothingElse) {
	kaq_node *made[2];
	for (int i = 0; i < 2; i++) {
		made[i] = kaq_create_new_node();
		made[i]->data.key = 7 + i;
		made[i]->data.state = KAQ_NODE_BUFFERED;
		made[i]->data.start_time = 5;
		kaq_insert_node(made[i]);
	}
	EXPECT_EQ(made[1], g->node_buffer->head);
	EXPECT_EQ(made[0], made[1]->next);
	EXPECT_EQ(nullptr, made[0]->next);
	EXPECT_EQ(2, g->stored_node_count);
	EXPECT_EQ(0, g->node_buffer_len);
	EXPECT_EQ(7, made[0]->data.key);
	EXPECT_EQ(5u, made[0]->data.start_time);
	EXPECT_EQ(0u, made[0]->data.end_time);
}

TEST_F(SpanLife, FreeOfNullIsIgnored) {
	kaq_free_node(nullptr);
	EXPECT_EQ(0, g->node_buffer_len);
}

TEST_F(SpanLife, FreeReleasesEveryText) {
	EXPECT_FALSE(leaks([&] {
		kaq_node *node = kaq_create_new_node();
		fill_every_text(node);
		kaq_free_node(node);
	}));
}

TEST_F(SpanLife, FreeBufferFreesBufferedAndOpenSpansAndLeavesAnEmptyList) {
	EXPECT_FALSE(leaks([&] {
		g->node_buffer_len = 0;
		fill_every_text(open_span("left open"));
		fill_every_text(open_span("closed"));
		kaq_close_node(g->current_node);
		ASSERT_NE(nullptr, g->node_buffer->head);
		kaq_free_node_buffer();
		EXPECT_EQ(nullptr, g->node_buffer->head);
		EXPECT_EQ(nullptr, g->current_node);
	}));
}

TEST_F(SpanLife, RecordsOfAHugeRequestGoBackToTheHeap) {
	kaq_free_node_buffer();
	size_t before = heap_in_use();
	for (int i = 0; i < 20000; i++) {
		span_of("call", 50);
	}
	size_t most = heap_in_use();
	kaq_free_node_buffer();
	EXPECT_LT(18000 * sizeof(kaq_node), most - before);
	EXPECT_LT(heap_in_use(), before + KAQ_SLABS_KEPT * sizeof(kaq_slab) + 65536);
}

/* The records of this thread, all taken: the next one needs memory. */
static kaq_node *empty_the_pool(zend_kaq_globals *g) {
	kaq_node *kept = g->node_pool.free_list;
	g->node_pool.free_list = nullptr;
	return kept;
}

TEST_F(SpanLife, NoMemoryForARecordGivesNull) {
	kaq_node *kept = empty_the_pool(g);
	allocation_fails(1);
	EXPECT_EQ(nullptr, kaq_create_new_node());
	g->node_pool.free_list = kept;
}

TEST_F(SpanLife, NoMemoryForTheRootLeavesARequestWithoutSpans) {
	kaq_node *kept = empty_the_pool(g);
	allocation_fails(1);
	kaq_create_main_method();
	EXPECT_EQ(nullptr, g->current_node);
	EXPECT_EQ(0, g->node_buffer_len);
	g->node_pool.free_list = kept;
}

TEST_F(SpanLife, CloseAllClosesFromTheInnermostOutwardWithTheRootLast) {
	open_span("root", 30);
	open_span("outer", 30);
	open_span("inner", 30);
	kaq_close_open_nodes();
	EXPECT_EQ((std::vector<std::string>{"root", "outer", "inner"}), buffered());
	EXPECT_EQ(nullptr, g->current_node);
}

TEST_F(SpanLife, CloseAllFindsOpenSpansThatTheCurrentOneNoLongerLeadsTo) {
	open_span("root", 30);
	kaq_node *outer = open_span("outer", 30);
	open_span("lost", 30);
	kaq_close_node(outer);
	kaq_close_open_nodes();
	EXPECT_EQ(3, g->stored_node_count);
	EXPECT_EQ(nullptr, g->current_node);
	for (const kaq_node *node = g->node_buffer->head; node; node = node->next) {
		EXPECT_EQ(KAQ_NODE_BUFFERED, node->data.state);
	}
}
