/* The list of spans is written with what earlier spans of it have shown: their times, the names of
 * their functions, the key before. It has to be the list of the spans as each is written alone. */
#include "engine.h"

#include <limits.h>
#include <random>

#include "util/kaq_strings.h"
#include "wire/payload.h"

class SpanList : public SpanTest {
protected:
	void TearDown() override {
		for (kaq_node *node : nodes) {
			kaq_free_node(node);
		}
		for (zend_string *name : names) {
			zend_string_release(name);
		}
		SpanTest::TearDown();
	}

	/* A string of its own, whatever others say the same. */
	zend_string *name(const std::string &text) {
		names.push_back(zend_string_init(text.data(), text.size(), 0));
		return names.back();
	}

	/* A call of user code with nothing else to tell, at the end of the list. */
	kaq_node *call(zend_string *class_name, zend_string *function_name) {
		kaq_node *node = kaq_create_new_node();
		kaq_function *fi = &node->data.function_info;
		fi->class_name = class_name ? ZSTR_VAL(class_name) : nullptr;
		fi->function_name = ZSTR_VAL(function_name);
		fi->names = KAQ_ENGINE_NAMES;
		memcpy(fi->component_name, KAQ_PHP_COMPONENT, sizeof(KAQ_PHP_COMPONENT));
		snprintf(fi->span_id, sizeof fi->span_id, "%016zx", nodes.size() + 1);
		node->data.parent = nodes.empty() ? nullptr : nodes[nodes.size() / 2];
		node->data.key = (int)nodes.size();
		node->data.start_time = 1700000000001;
		node->data.end_time = 1700000000051;
		nodes.push_back(node);
		return node;
	}

	/* A member beside those that each span has, and that one alone. */
	static void tell_more(kaq_function *fi, int which) {
		uint8_t *const members[] = {&fi->isExternal, &fi->isAsync, &fi->isFault, &fi->isError};
		if (which % 5 == 4) {
			fi->priority = PRIORITY_1;
		} else {
			*members[which % 5] = 1;
		}
	}

	void expect_each_as_alone() {
		smart_str list = {nullptr, 0};
		std::string expected;
		for (const kaq_node *node : nodes) {
			smart_str alone = {nullptr, 0};
			kaq_form_method_info(node, &alone);
			expected += (expected.empty() ? "{" : ",{") + take_buffer(&alone) + "}";
		}
		kaq_form_spans(&list, nodes.data(), (int)nodes.size());
		EXPECT_EQ(",\"method_info\":{\"span_info\":[" + expected + "]}", take_buffer(&list));
	}

	std::vector<kaq_node *> nodes;
	std::vector<zend_string *> names;
};

TEST_F(SpanList, FirstSpanHasNoComma) {
	call(nullptr, name("root"));
	expect_each_as_alone();
	call(nullptr, name("a"));
	expect_each_as_alone();
}

TEST_F(SpanList, PlainSpanIsWrittenMemberByMemberInTheSameWay) {
	call(nullptr, name("root"));
	call(name("A\\B"), name("do"));
	smart_str list = {nullptr, 0};
	kaq_form_spans(&list, nodes.data(), 2);
	std::string text = take_buffer(&list);
	EXPECT_EQ(",{\"st\":1700000000001,\"et\":1700000000051,\"mo\":1,\"fn\":\"A\\\\B::do\","
			  "\"cn\":\"PHP\",\"si\":\"0000000000000002\",\"psi\":\"0000000000000001\"}]}",
			  text.substr(text.find(",{")));
}

TEST_F(SpanList, FunctionsOfOneNameAreToldApartByTheirClasses) {
	zend_string *function_name = name("run");
	zend_string *classes[] = {nullptr, name("A"), name("B"), name("A\\B"), name("")};
	for (int i = 0; i < 40; i++) {
		call(classes[i * i % 5], function_name);
	}
	expect_each_as_alone();
}

TEST_F(SpanList, ClassAndFunctionAreNotMixedUp) {
	zend_string *a = name("a");
	zend_string *b = name("b");
	call(nullptr, a);
	for (int i = 0; i < 3; i++) {
		call(a, b);
		call(b, a);
	}
	expect_each_as_alone();
}

TEST_F(SpanList, ManyFunctionsInAnyOrder) {
	std::mt19937 random(11);
	std::vector<zend_string *> functions;
	for (int i = 0; i < 300; i++) {
		static const char *const parts[] = {"x", "\\", "\"", "/", "\n", "long_name_of_a_function"};
		std::string text = std::to_string(i);
		for (unsigned length = random() % 9; length > 0; length--) {
			text += parts[random() % 6];
		}
		functions.push_back(name(text));
	}
	for (int i = 0; i < 5000; i++) {
		call(random() % 3 ? functions[random() % 20] : nullptr, functions[random() % 300]);
	}
	expect_each_as_alone();
}

TEST_F(SpanList, NamesOfAllLengths) {
	for (size_t length = 0; length < 140; length++) {
		zend_string *of_length = name(std::string(length, 'n'));
		call(nullptr, of_length);
		call(nullptr, of_length);
		call(of_length, of_length);
		call(of_length, of_length);
	}
	zend_string *huge = name(std::string(100000, '\\'));
	call(huge, huge);
	call(huge, huge);
	expect_each_as_alone();
}

TEST_F(SpanList, EitherTimeMayChangeAlone) {
	static const uint64_t times[] = {0, 0, 1700000000001, 1700000000001, 9, UINT64_MAX};
	zend_string *function_name = name("f");
	for (uint64_t start : times) {
		for (uint64_t end : times) {
			kaq_node *node = call(nullptr, function_name);
			node->data.start_time = start;
			node->data.end_time = end;
		}
	}
	for (size_t i = 0; i < 30; i++) {
		kaq_node *node = call(nullptr, function_name);
		node->data.start_time = times[i % 6];
		node->data.end_time = times[i / 6];
	}
	expect_each_as_alone();
}

TEST_F(SpanList, KeysOfAnyLength) {
	zend_string *function_name = name("f");
	for (int first : {0, 95, 995, 99999994, 99999999, INT_MAX - 9, -9}) {
		for (int i = 0; i < 9; i++) {
			call(nullptr, function_name)->data.key = first + i;
		}
	}
	for (int key : {7, 7, 9, 10, 8, 9, 19, 20, 0}) {
		call(nullptr, function_name)->data.key = key;
	}
	expect_each_as_alone();
}

TEST_F(SpanList, SpansWithMoreToTellStandBetween) {
	zend_string *function_name = name("f");
	for (int i = 0; i < 200; i++) {
		kaq_node *node = call(nullptr, function_name);
		if (i % 3 == 0) {
			kaq_set_method_dbquery(&node->data.function_info, "SELECT 1");
		} else if (i % 5 == 0) {
			tell_more(&node->data.function_info, i / 5);
		} else if (i % 11 == 0) {
			node->data.function_info.span_id[0] = '\0';
		}
	}
	expect_each_as_alone();
}

/* Names that are not the engine's have no length in front of them. */
TEST_F(SpanList, NamesOfOurOwnAreReadToTheirEnd) {
	for (int i = 0; i < 3; i++) {
		kaq_node *node = call(nullptr, name("f"));
		kaq_function *fi = &node->data.function_info;
		fi->names = KAQ_OWNS_FUNCTION_NAME;
		fi->function_name = kaq_strdup("a_name_of_our_own");
	}
	expect_each_as_alone();
}

/* The room for a name that is copied is asked for, not left over from when it was first written. */
TEST_F(SpanList, OneNameFillsTheTextAgainAndAgain) {
	for (size_t length : {100, 5000}) {
		zend_string *of_length = name(std::string(length, 'n'));
		for (int i = 0; i < 2000; i++) {
			call(nullptr, of_length);
		}
	}
	expect_each_as_alone();
}
