#include "store/document_budget.h"

#include <gtest/gtest.h>

#include "records.h"

namespace {

using namespace kaq;

constexpr int64_t kNow = 1700000000000;

Summary summary(int64_t number, int64_t duration = 100) {
	Summary summary = kaq_test::record(number, kNow).summary;
	summary.duration = duration;
	return summary;
}

DocumentSettings settings() {
	DocumentSettings settings;
	settings.bytes = 8000;
	settings.time = 80000; /* so 0.1 bytes a millisecond, and 1000 at once */
	return settings;
}

TEST(DocumentBudget, KeepsEverythingWhileThereIsPlenty) {
	DocumentBudget budget(settings());
	for (int i = 0; i < 100; i++) {
		EXPECT_TRUE(budget.wants(summary(i), kNow));
	}
	EXPECT_EQ(budget.share(), 1);
}

TEST(DocumentBudget, KeepsAShareByTraceWhenItRunsLow) {
	DocumentBudget budget(settings());
	budget.wants(summary(0), kNow);
	budget.spend(700);
	EXPECT_NEAR(budget.share(), 0.5, 0.01);
	DocumentBudget other(settings());
	other.wants(summary(0), kNow);
	other.spend(700);
	int kept = 0;
	for (int i = 1; i <= 1000; i++) {
		bool wants = budget.wants(summary(i), kNow);
		kept += wants;
		Summary same_trace = summary(i);
		same_trace.application = "another service";
		EXPECT_EQ(other.wants(same_trace, kNow), wants);
	}
	EXPECT_NEAR(kept, 500, 60);
}

TEST(DocumentBudget, TheLastOfItIsForFailedAndSlowRequests) {
	DocumentBudget budget(settings());
	for (int i = 0; i < 100; i++) {
		budget.wants(summary(i, 100), kNow);
	}
	budget.spend(950);
	Summary failed = summary(200);
	failed.is_failed = true;
	EXPECT_FALSE(budget.wants(summary(201), kNow));
	EXPECT_TRUE(budget.wants(failed, kNow));
	EXPECT_TRUE(budget.wants(summary(202, 300), kNow));
	budget.spend(100);
	EXPECT_FALSE(budget.wants(failed, kNow));
	EXPECT_FALSE(budget.wants(summary(203, 400), kNow));
}

TEST(DocumentBudget, ComesBackWithTime) {
	DocumentBudget budget(settings());
	budget.wants(summary(1), kNow);
	budget.spend(1000);
	EXPECT_FALSE(budget.wants(summary(2), kNow));
	EXPECT_TRUE(budget.wants(summary(3), kNow + 5000)); /* 500 bytes: plenty */
	budget.spend(500);
	EXPECT_TRUE(budget.wants(summary(4), kNow + 1000000));
	budget.spend(1000);
	EXPECT_FALSE(budget.wants(summary(5), kNow + 1000000)) << "no more than that at once";
}

TEST(DocumentBudget, KeepsAllIfItIsTold) {
	DocumentSettings all = settings();
	all.keeps_all = true;
	DocumentBudget budget(all);
	budget.spend(1000000);
	EXPECT_TRUE(budget.wants(summary(1), kNow));
}

TEST(DocumentBudget, OtherSettingsKeepWhatIsLeftInProportion) {
	DocumentBudget budget(settings());
	budget.wants(summary(1), kNow);
	budget.spend(700);
	DocumentSettings more = settings();
	more.bytes *= 10;
	budget.use(more);
	EXPECT_NEAR(budget.share(), 0.5, 0.01);
	budget.spend(1000);
	EXPECT_NEAR(budget.share(), 0.25, 0.01);
	more.keeps_all = true;
	budget.use(more);
	budget.spend(100000);
	EXPECT_TRUE(budget.wants(summary(2), kNow));
}

TEST(DocumentBudget, AClockThatStepsBackGivesNothing) {
	DocumentBudget budget(settings());
	budget.wants(summary(1), kNow);
	budget.spend(1000);
	EXPECT_FALSE(budget.wants(summary(2), kNow - 1000000));
	EXPECT_FALSE(budget.wants(summary(3), kNow - 999999));
}

} // namespace
