/* Pruning of intermediate spans at request end. */
#include "engine.h"

class Prune : public SpanTest {
protected:
	/* name@key<parent of each buffered span, in the order of the list. */
	std::string tree() const {
		std::string text;
		for (const kaq_node *node = g->node_buffer->head; node; node = node->next) {
			const kaq_node *parent = node->data.parent;
			text += std::string(text.empty() ? "" : " ") + node->data.function_info.function_name +
					"@" + std::to_string(node->data.key);
			if (parent) {
				text += std::string("<") + parent->data.function_info.function_name;
			}
		}
		return text;
	}

	/* Closes the innermost spans. */
	void close(int count) {
		while (count-- > 0) {
			kaq_close_node(g->current_node);
		}
	}

	/* A leaf that is kept. */
	kaq_node *leaf(const char *name) {
		return span_of(name, 50);
	}

	void expect_counts(int count) {
		EXPECT_EQ(count, g->node_buffer_len);
		EXPECT_EQ(count, g->stored_node_count);
	}
};

TEST_F(Prune, WithoutSpansNothingHappens) {
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("", tree());
	expect_counts(0);
}

TEST_F(Prune, RootAloneStaysEvenWhenUnnecessary) {
	open_span("root");
	close(1);
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("root@0", tree());
	expect_counts(1);
}

TEST_F(Prune, UnnecessaryOnlyChildGoesAndItsChildMovesUp) {
	open_span("root");
	open_span("link");
	leaf("query");
	close(2);
	ASSERT_EQ("root@0 link@1<root query@2<link", tree());
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("query@1<root root@0", tree());
	expect_counts(2);
}

TEST_F(Prune, ChainOfUnnecessaryLinksGoesWhole) {
	open_span("root");
	open_span("a");
	open_span("b");
	open_span("c");
	leaf("query");
	close(4);
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("query@1<root root@0", tree());
	expect_counts(2);
}

TEST_F(Prune, ChildMovesToTheNearestKeptAncestorAndNotToTheRoot) {
	open_span("root");
	open_span("kept", 50);
	open_span("link");
	leaf("query");
	close(3);
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("query@2<kept kept@1<root root@0", tree());
}

TEST_F(Prune, NecessarySpansAllStay) {
	open_span("root", 50);
	open_span("a", 50);
	leaf("b");
	close(2);
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("b@2<a a@1<root root@0", tree());
	expect_counts(3);
}

TEST_F(Prune, UnnecessarySpansWithSiblingsStay) {
	open_span("root");
	open_span("left");
	leaf("query");
	close(1);
	open_span("right");
	leaf("query");
	close(2);
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("query@4<right right@3<root query@2<left left@1<root root@0", tree());
	expect_counts(5);
}

TEST_F(Prune, SiblingThatWasDroppedAtItsCloseStillCounts) {
	open_span("root");
	span_of("dropped", 1);
	open_span("link");
	leaf("query");
	close(2);
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("query@2<link link@1<root root@0", tree());
}

TEST_F(Prune, ChildCountsAreNotBroughtUpToDate) {
	kaq_node *root = open_span("root");
	open_span("link");
	leaf("one");
	leaf("two");
	close(2);
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("two@2<root one@1<root root@0", tree());
	EXPECT_EQ(1, root->data.child_count);
}

TEST_F(Prune, KeysAreNumberedDenselyInTheirOldOrderAndTheListDescends) {
	open_span("root");
	open_span("a");
	leaf("b");
	close(2);
	g->current_node = g->node_buffer->head;
	open_span("c");
	leaf("d");
	close(1);
	g->current_node = nullptr;
	ASSERT_EQ("c@3<root d@4<c root@0 a@1<root b@2<a", tree());
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("d@4<c c@3<root b@2<a a@1<root root@0", tree()) << "the root has two children";
	g->node_buffer->head->next->data.parent->data.child_count = 1;
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("d@2<root b@1<root root@0", tree());
	expect_counts(3);
}

TEST_F(Prune, KeptSpanWithoutAParentGoesBelowTheRoot) {
	kaq_node *root = open_span("root");
	kaq_node *orphan = leaf("orphan");
	close(1);
	orphan->data.parent = nullptr;
	kaq_prune_intermediate_nodes();
	EXPECT_EQ(root, orphan->data.parent);
}

TEST_F(Prune, UnnecessarySpanWithoutAParentGoes) {
	open_span("root");
	open_span("link");
	kaq_node *query = leaf("query");
	query->data.parent->data.parent = nullptr;
	kaq_node *link = query->data.parent;
	g->current_node = link;
	kaq_close_node(link);
	kaq_close_open_nodes();
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("query@1<root root@0", tree());
}

TEST_F(Prune, KeyWithoutASpanLeavesNoGap) {
	open_span("root");
	g->node_buffer_len += 2;
	leaf("late");
	close(1);
	ASSERT_EQ("root@0 late@3<root", tree());
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("late@1<root root@0", tree());
	expect_counts(2);
}

TEST_F(Prune, RootHasNoParentAfterwards) {
	kaq_node *root = open_span("root");
	leaf("a");
	close(1);
	kaq_prune_intermediate_nodes();
	EXPECT_EQ(nullptr, root->data.parent);
}

TEST_F(Prune, WithoutMemoryTheBufferStaysAsItIs) {
	open_span("root");
	open_span("link");
	leaf("query");
	close(2);
	for (int nth : {1, 2}) {
		allocation_fails(nth);
		kaq_prune_intermediate_nodes();
		EXPECT_EQ("root@0 link@1<root query@2<link", tree()) << nth;
		expect_counts(3);
	}
}

TEST_F(Prune, WhatGoesIsReleased) {
	EXPECT_FALSE(leaks([&] {
		g->node_buffer_len = 0;
		open_span("root");
		open_span("link");
		kaq_set_method_dbquery(&g->current_node->data.function_info, "SELECT 1");
		leaf("query");
		close(2);
		kaq_prune_intermediate_nodes();
		kaq_free_node_buffer();
	}));
}

TEST_F(Prune, ChainOfTenThousandLinks) {
	open_span("root");
	for (int i = 0; i < 10000; i++) {
		open_span("link");
	}
	leaf("query");
	close(10001);
	ASSERT_EQ(10002, g->stored_node_count);
	kaq_prune_intermediate_nodes();
	EXPECT_EQ("query@1<root root@0", tree());
	expect_counts(2);
}

/* Request end prunes only when the setting says so. */
class PruneAtRequestEnd : public MonitoredTest {
protected:
	/* Spans in the document after a link and a query below the root. */
	size_t spans_sent() {
		for (const char *name : {"link", "query"}) {
			kaq_node *node = kaq_create_new_node();
			kaq_copy_function_info(&node->data.function_info, nullptr, name, "PHP", INTERNAL);
			kaq_open_node(node);
		}
		g->current_node->data.start_time -= 50;
		std::string document = end_and_take_document();
		size_t count = 0;
		for (size_t at = 0; (at = document.find("\"st\":", at)) != std::string::npos; at++) {
			count++;
		}
		return count;
	}
};

TEST_F(PruneAtRequestEnd, OffByDefault) {
	EXPECT_EQ(0, g->prune_intermediate_spans);
	EXPECT_EQ(3u, spans_sent());
}

TEST_F(PruneAtRequestEnd, AnyOtherNumberTurnsItOn) {
	g->prune_intermediate_spans = -1;
	EXPECT_EQ(2u, spans_sent());
}
