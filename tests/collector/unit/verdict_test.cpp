#include "analysis/verdict.h"

#include <gtest/gtest.h>

#include <set>

#include "analysis/scrub.h"
#include "verdict_cases.h"

using kaq::Verdict;

/* The cause is named, and the gain is within a tenth of what its author built in; also when the
 * request has lost its secrets first, as each one does that arrives. */
void expect_verdicts(std::vector<VerdictCase> cases, bool is_scrubbed) {
	for (VerdictCase &each : cases) {
		SCOPED_TRACE(each.name + (is_scrubbed ? ", scrubbed" : ""));
		if (is_scrubbed) {
			scrub(each.request, {});
		}
		Verdict verdict = verdict_of(each.request, each.options);
		EXPECT_EQ(finding_name(each.kind), finding_name(verdict.kind)) << verdict.sentence;
		EXPECT_NE(std::string::npos, verdict.sentence.find(each.says)) << verdict.sentence;
		EXPECT_GE(verdict.gain * 10, each.gain * 9) << verdict.sentence;
		EXPECT_LE(verdict.gain * 10, each.gain * 11) << verdict.sentence;
		EXPECT_LE(verdict.gain, each.request.duration());
	}
}

TEST(Verdict, NamesWhatStatementsCost) {
	expect_verdicts(statement_cases(), false);
	expect_verdicts(statement_cases(), true);
}

TEST(Verdict, NamesWhatCallsCost) {
	expect_verdicts(call_cases(), false);
	expect_verdicts(call_cases(), true);
}

TEST(Verdict, NamesCodeWaitingFailuresAndLimits) {
	expect_verdicts(other_cases(), false);
	expect_verdicts(other_cases(), true);
}

TEST(Verdict, SaysNothingOfHealthyRequests) {
	for (bool is_scrubbed : {false, true}) {
		for (HealthyCase &each : healthy_cases()) {
			if (is_scrubbed) {
				scrub(each.request, {});
			}
			EXPECT_EQ("", verdict_of(each.request, each.options).sentence) << each.name;
			EXPECT_FALSE(verdict_of(each.request, each.options).is_said());
		}
	}
}

TEST(Verdict, WasHeldAgainstManyRequests) {
	std::set<std::string> names;
	for (auto cases : {statement_cases, call_cases, other_cases}) {
		for (const VerdictCase &each : cases()) {
			names.insert(each.name);
		}
	}
	EXPECT_LE(40u, names.size());
	EXPECT_LE(15u, healthy_cases().size());
}
