/* Span ids, and the array of spans by key that the payload is written from. */
#include "engine.h"
#include "tracing/trace_context.h"
#include "util/kaq_strings.h"

#include <set>
#include <stdlib.h>

class SpanIds : public SpanTest {
protected:
	static std::string id_of(const kaq_node *node) {
		return node->data.function_info.span_id;
	}

	static bool is_id(const std::string &text) {
		return text.size() == 16 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
	}
};

TEST_F(SpanIds, EverySpanStandsAtItsKeyWithAnId) {
	open_span("root");
	kaq_node *a = span_of("a", 50);
	kaq_node *b = span_of("b", 50);
	kaq_node *root = g->current_node;
	kaq_close_node(root);
	kaq_node **nodes = kaq_validate_nodes();
	ASSERT_NE(nullptr, nodes);
	EXPECT_EQ(root, nodes[0]);
	EXPECT_EQ(a, nodes[1]);
	EXPECT_EQ(b, nodes[2]);
	for (int i = 0; i < 3; i++) {
		EXPECT_TRUE(is_id(id_of(nodes[i]))) << id_of(nodes[i]);
	}
	free(nodes);
}

TEST_F(SpanIds, IdThatASpanHasAlreadyStays) {
	open_span("root");
	kaq_node *a = span_of("a", 50);
	kaq_copy_bounded(a->data.function_info.span_id, 17, "00f067aa0ba902b7");
	kaq_node *b = span_of("b", 50);
	kaq_copy_bounded(b->data.function_info.span_id, 17, "x");
	kaq_close_node(g->current_node);
	free(kaq_validate_nodes());
	EXPECT_EQ("00f067aa0ba902b7", id_of(a));
	EXPECT_EQ("x", id_of(b));
	EXPECT_EQ(1, generator_calls());
	EXPECT_EQ(16, generator_characters());
}

TEST_F(SpanIds, AllIdsOfARequestComeFromOneGeneratorCallAndDiffer) {
	for (int i = 0; i < 1000; i++) {
		span_of("call", 50);
	}
	free(kaq_validate_nodes());
	EXPECT_EQ(1, generator_calls());
	EXPECT_EQ(16000, generator_characters());
	std::set<std::string> ids;
	for (const kaq_node *node = g->node_buffer->head; node; node = node->next) {
		ids.insert(id_of(node));
	}
	EXPECT_EQ(1000u, ids.size());
}

TEST_F(SpanIds, SecondPassGivesNoNewIds) {
	open_span("root");
	kaq_close_node(g->current_node);
	free(kaq_validate_nodes());
	std::string first = id_of(g->node_buffer->head);
	free(kaq_validate_nodes());
	EXPECT_EQ(first, id_of(g->node_buffer->head));
	EXPECT_EQ(16, generator_characters());
}

TEST_F(SpanIds, KeyWithoutASpanIsNull) {
	open_span("root");
	g->node_buffer_len++;
	span_of("late", 50);
	kaq_close_node(g->current_node);
	kaq_node **nodes = kaq_validate_nodes();
	EXPECT_NE(nullptr, nodes[0]);
	EXPECT_EQ(nullptr, nodes[1]);
	EXPECT_NE(nullptr, nodes[2]);
	free(nodes);
}

TEST_F(SpanIds, WithoutSpansTheArrayIsEmptyButThere) {
	kaq_node **nodes = kaq_validate_nodes();
	EXPECT_NE(nullptr, nodes);
	free(nodes);
}

TEST_F(SpanIds, WithoutMemoryThereIsNoArray) {
	open_span("root");
	kaq_close_node(g->current_node);
	for (int nth : {1, 2}) {
		allocation_fails(nth);
		EXPECT_EQ(nullptr, kaq_validate_nodes()) << nth;
		EXPECT_EQ("", id_of(g->node_buffer->head)) << nth;
	}
}

TEST_F(SpanIds, AssignGivesAnIdOnceAndIgnoresNull) {
	kaq_node *node = open_span("call");
	kaq_assign_span_id(node);
	std::string first = id_of(node);
	EXPECT_TRUE(is_id(first)) << first;
	kaq_assign_span_id(node);
	EXPECT_EQ(first, id_of(node));
	kaq_assign_span_id(nullptr);
}
