/* Layouts: how much of one can be read, and what becomes of one that cannot. */
#include "engine.h"

#include "calls/arguments.h"

/* The layouts that are tried, and what they find in the arguments of probe(). */
static const char *layouts;
static int fitted;
static kaq_arguments found;

static void read_arguments(void) {
	memset(&found, 1, sizeof(found));
	fitted = kaq_parse_arguments(EG(current_execute_data), layouts, false, &found);
}

class Arguments : public EngineTest {
protected:
	void SetUp() override {
		EngineTest::SetUp();
		start_request();
		probe = read_arguments;
	}

	static bool fits(const char *wanted, const char *call) {
		layouts = wanted;
		fitted = -1;
		EXPECT_TRUE(run_php(call)) << wanted;
		return fitted == 1;
	}

	static bool is_all_unset(void) {
		const kaq_arguments nothing = {};
		return memcmp(&found, &nothing, sizeof(found)) == 0;
	}
};

TEST_F(Arguments, LongestLayoutIsReadToItsEnd) {
	const std::string texts(KAQ_LAYOUT_LENGTH, 's');
	ASSERT_TRUE(fits(texts.c_str(), "probe(...array_fill(0, 11, '1'));"));
	for (int i = 0; i < KAQ_LAYOUT_LENGTH; i++) {
		EXPECT_EQ(1u, found.text_length[i]);
	}
	const std::string numbers(KAQ_LAYOUT_LENGTH, 'l');
	ASSERT_TRUE(fits(numbers.c_str(), "probe(...range(0, 10));"));
	for (int i = 0; i < KAQ_LAYOUT_LENGTH; i++) {
		EXPECT_EQ(i, found.number[i]);
	}
}

TEST_F(Arguments, LongerLayoutIsRefused) {
	for (char letter : {'s', 'l', 'z', 'b'}) {
		for (size_t length : {KAQ_LAYOUT_LENGTH, KAQ_LAYOUT_LENGTH + 1}) {
			const std::string layout = "|" + std::string(length, letter);
			EXPECT_FALSE(fits(layout.c_str(), "probe();")) << layout;
			EXPECT_TRUE(is_all_unset()) << layout;
		}
	}
}

TEST_F(Arguments, ConditionDoesNotCountAsPartOfALayout) {
	EXPECT_TRUE(fits("1!|ssssssssss", "probe('a', 'b');"));
	EXPECT_FALSE(fits("1!|sssssssssss", "probe('a', 'b');"));
}

TEST_F(Arguments, NullableTextIsNoCondition) {
	EXPECT_TRUE(fits("s!", "probe('a');"));
	EXPECT_STREQ("a", found.text[0]);
	EXPECT_TRUE(fits("s!", "probe(null);"));
}

TEST_F(Arguments, LayoutBehindARefusedOneIsTried) {
	EXPECT_TRUE(fits("|zzzzzzzzzzz;s", "probe('a');"));
	EXPECT_STREQ("a", found.text[0]);
}

TEST_F(Arguments, LetterThatNothingIsReadForIsRefused) {
	for (const char *unknown : {"d", "S", "s|h", "*", "2", "2s", "22:s"}) {
		EXPECT_FALSE(kaq_are_readable(unknown)) << unknown;
		EXPECT_FALSE(fits(unknown, "probe('1');")) << unknown;
		EXPECT_TRUE(is_all_unset()) << unknown;
	}
}

/* What the rows of the table are checked for when they are compiled. */
static_assert(kaq_are_readable("2:sa;1!s!;|s!s!s!bl;Os|lblllbzl"), "known letters in any order");
static_assert(!kaq_are_readable("s;|sssssssssss"), "one too long");
static_assert(!kaq_are_readable("l!") && !kaq_are_readable("s|b!"), "nobody keeps that output");
