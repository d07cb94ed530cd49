/* Sections without the script's memory limit: how they nest, and what ends those that a bailout
 * left open. */
#include "engine.h"

#include <stdlib.h>
#include <string.h>

#include "diagnostics/stacktrace.h"
#include "util/memory_limit.h"

/* Far more than the limit of these tests. */
#define TAKE_TOO_MUCH "strlen(str_repeat('x', 40 << 20));"

class MemoryLimit : public EngineTest {
protected:
	void SetUp() override {
		EngineTest::SetUp();
		const char *own_allocator = getenv("USE_ZEND_ALLOC");
		if (own_allocator && strcmp(own_allocator, "0") == 0) {
			GTEST_SKIP() << "the engine's allocator is off";
		}
		start_limited_request();
	}

	void TearDown() override {
		kaq_memory_limit_unwind(0);
		EngineTest::TearDown();
	}

	void start_limited_request() {
		start_request();
		ASSERT_TRUE(run_php("ini_set('memory_limit', '16M');"));
	}

	/* Ends in a bailout if it does, so that nothing else can be asked of this request. */
	static bool limit_holds() {
		return dies_in_php(TAKE_TOO_MUCH);
	}
};

TEST_F(MemoryLimit, IsOffInASectionAndHoldsAfterIt) {
	EXPECT_EQ(0, kaq_memory_limit_sections());
	kaq_memory_limit_lift();
	EXPECT_EQ(1, kaq_memory_limit_sections());
	EXPECT_TRUE(run_php(TAKE_TOO_MUCH));
	kaq_memory_limit_restore();
	EXPECT_EQ(0, kaq_memory_limit_sections());
	EXPECT_TRUE(limit_holds());
}

TEST_F(MemoryLimit, StaysOffUntilTheOutermostSectionEnds) {
	kaq_memory_limit_lift();
	kaq_memory_limit_lift();
	kaq_memory_limit_lift();
	kaq_memory_limit_restore();
	EXPECT_TRUE(run_php(TAKE_TOO_MUCH));
	kaq_memory_limit_restore();
	EXPECT_TRUE(run_php(TAKE_TOO_MUCH));
	EXPECT_EQ(1, kaq_memory_limit_sections());
	kaq_memory_limit_restore();
	EXPECT_TRUE(limit_holds());
}

TEST_F(MemoryLimit, StackTakenInASectionLeavesItOff) {
	kaq_function fi = {};
	kaq_memory_limit_lift();
	kaq_make_stacktrace(&fi);
	EXPECT_TRUE(run_php(TAKE_TOO_MUCH));
	kaq_memory_limit_restore();
	free(fi.arg_data->stacktrace);
	free(fi.arg_data);
}

TEST_F(MemoryLimit, UnwindingEndsTheSectionsAboveAndNoOther) {
	kaq_memory_limit_lift();
	kaq_memory_limit_lift();
	kaq_memory_limit_lift();
	kaq_memory_limit_unwind(4);
	EXPECT_EQ(3, kaq_memory_limit_sections());
	kaq_memory_limit_unwind(1);
	EXPECT_EQ(1, kaq_memory_limit_sections());
	EXPECT_TRUE(run_php(TAKE_TOO_MUCH));
	kaq_memory_limit_unwind(0);
	EXPECT_EQ(0, kaq_memory_limit_sections());
	EXPECT_TRUE(limit_holds());
}

static void bail_out_of_a_section(void) {
	kaq_memory_limit_lift();
	zend_bailout();
}

TEST_F(MemoryLimit, SectionLeftByABailoutEndsWithTheRequest) {
	probe = bail_out_of_a_section;
	EXPECT_TRUE(dies_in_php("probe();"));
	EXPECT_EQ(1, kaq_memory_limit_sections());
	end_request();
	EXPECT_EQ(0, kaq_memory_limit_sections());
	start_limited_request();
	EXPECT_TRUE(limit_holds());
}

TEST_F(MemoryLimit, SectionThatNoRequestEndHasEndedEndsWithTheNextStart) {
	end_request();
	kaq_memory_limit_lift();
	start_request();
	EXPECT_EQ(0, kaq_memory_limit_sections());
	EXPECT_TRUE(dies_in_php("strlen(str_repeat('x', 600 << 20));"));
}

TEST_F(MemoryLimit, FatalErrorOutOfASectionDoesNotKeepTheNextFromLiftingIt) {
	kaq_memory_limit_lift();
	EXPECT_TRUE(dies_in_php("trigger_error('dies', E_USER_ERROR);"));
	CG(unclean_shutdown) = 0;
	kaq_memory_limit_lift();
	EXPECT_TRUE(run_php(TAKE_TOO_MUCH));
}

TEST_F(MemoryLimit, LessThanWhatIsInUseMeansThatNothingMoreIsToBeHad) {
	ASSERT_TRUE(run_php("ini_set('memory_limit', '128M');"));
	kaq_memory_limit_lift();
	ASSERT_TRUE(run_php("$kept = str_repeat('x', 160 << 20);"));
	kaq_memory_limit_restore();
	EXPECT_TRUE(limit_holds());
}
