/* Module startup and shutdown: hooks in place under their settings, given back, and all again. */
#include "engine.h"

#include "diagnostics/stacktrace.h"
#include "spans/kaq_execute.h"

class Restart : public EngineTest {
protected:
	/* A test may end with the engine configured in any way. */
	void TearDown() override {
		EngineTest::TearDown();
		engine_restart();
	}

	static bool execute_is_hooked() {
		return zend_execute_ex == kaq_execute_ex;
	}
	static bool exceptions_are_hooked() {
		return (kaq_throw_hook_t)zend_throw_exception_hook == kaq_throw_exception_hook;
	}
	static bool errors_are_hooked() {
		return (kaq_error_cb_t)zend_error_cb == kaq_error_cb;
	}

	void expect_hooks(bool execute, bool exceptions, bool errors) {
		EXPECT_EQ(execute, execute_is_hooked());
		EXPECT_EQ(exceptions, exceptions_are_hooked());
		EXPECT_EQ(errors, errors_are_hooked());
	}

	void expect_a_monitored_request() {
		g = kaq_get_globals();
		collector().answer(MONITORED_REPLY);
		server_variable("REQUEST_URI", "/page");
		start_request();
		EXPECT_EQ(1, g->control_signal);
		g->method_threshold = 0;
		EXPECT_TRUE(run_php("function restarted() {} restarted();"));
		collector().take();
		end_request();
		std::vector<std::string> data = collector().take_data();
		ASSERT_EQ(1u, data.size());
		EXPECT_NE(std::string::npos, decode_line(data[0]).find("\"fn\":\"restarted\""));
	}
};

TEST_F(Restart, AllHooksStandByDefault) {
	expect_hooks(true, true, true);
	EXPECT_NE(nullptr, old_execute_ex);
	EXPECT_NE(kaq_execute_ex, old_execute_ex);
	EXPECT_NE(kaq_error_cb, old_error_cb);
}

TEST_F(Restart, InternalFunctionsAreNotHooked) {
	EXPECT_EQ(nullptr, zend_execute_internal);
}

TEST_F(Restart, WithoutUserCodeTrackingOnlyTheOtherHooksStand) {
	engine_restart("kaq.track_zend_execute=0\n");
	expect_hooks(false, true, true);
	EXPECT_EQ(nullptr, old_execute_ex);
}

TEST_F(Restart, WithoutExceptionTrackingOnlyTheOtherHooksStand) {
	engine_restart("kaq.track_exceptions=0\n");
	expect_hooks(true, false, true);
}

TEST_F(Restart, WithoutErrorTrackingOnlyTheOtherHooksStand) {
	engine_restart("kaq.track_errors=0\n");
	expect_hooks(true, true, false);
}

TEST_F(Restart, AnyOtherNumberCountsAsOn) {
	engine_restart("kaq.track_zend_execute=-1\nkaq.track_errors=3\nkaq.track_exceptions=2\n");
	expect_hooks(true, true, true);
}

TEST_F(Restart, ValueTwoNeedsNoHookWhereCallsCanBeObserved) {
	for (int round = 0; round < 2; round++) {
		engine_restart("kaq.track_zend_execute=2\n");
		expect_hooks(!KAQ_CALLS_CAN_BE_OBSERVED, true, true);
		expect_a_monitored_request();
		engine_restart();
		expect_hooks(true, true, true);
		expect_a_monitored_request();
	}
}

TEST_F(Restart, WithoutUserCodeTrackingTheRootIsStillRecorded) {
	engine_restart("kaq.track_zend_execute=0\n");
	g = kaq_get_globals();
	collector().answer(MONITORED_REPLY);
	server_variable("REQUEST_URI", "/page");
	start_request();
	EXPECT_TRUE(run_php("ini_set('kaq.track_zend_execute', '1');"
						"ini_set('kaq.method_threshold', '0'); function f() {} f();"));
	EXPECT_EQ(1, g->node_buffer_len) << "what a script sets moves no hook";
}

TEST_F(Restart, HooksFollowTheStartupValuesOnly) {
	start_request();
	EXPECT_TRUE(run_php("ini_set('kaq.track_zend_execute', '0'); ini_set('kaq.track_errors', '0');"
						"ini_set('kaq.track_exceptions', '0');"));
	expect_hooks(true, true, true);
}

TEST_F(Restart, SurvivesTwiceAndWorksEachTime) {
	for (int round = 0; round < 2; round++) {
		expect_a_monitored_request();
		engine_restart();
		expect_hooks(true, true, true);
	}
	expect_a_monitored_request();
}

TEST_F(Restart, TextSettingsOfPhpIniAreReadAgain) {
	engine_restart("kaq.application_name=First\nkaq.exclude_ports=\"1,2\"\n");
	g = kaq_get_globals();
	EXPECT_STREQ("First", g->applicationname);
	EXPECT_STREQ("1,2", g->excludedports);
	engine_restart("kaq.application_name=Second\n");
	g = kaq_get_globals();
	EXPECT_STREQ("Second", g->applicationname);
	EXPECT_EQ(nullptr, g->excludedports);
}

TEST_F(Restart, EmptyApplicationNameInPhpIniStaysUnset) {
	engine_restart("kaq.application_name=\n");
	g = kaq_get_globals();
	EXPECT_EQ(nullptr, g->applicationname);
	start_request();
	EXPECT_EQ(nullptr, g->application_name);
}

/* The module's own start and end, without the engine's. */
class HookChain : public EngineTest {
protected:
	void TearDown() override {
		EXPECT_EQ(zend_execute_ex, kaq_execute_ex) << "the test left the hooks changed";
		EngineTest::TearDown();
	}
};

TEST_F(HookChain, EndGivesBackWhatStartFound) {
	void (*execute_before)(zend_execute_data *) = old_execute_ex;
	kaq_error_cb_t errors_before = old_error_cb;
	kaq_throw_hook_t exceptions_before = old_exception_cb;
	kaq_end();
	EXPECT_EQ(execute_before, zend_execute_ex);
	EXPECT_EQ(errors_before, (kaq_error_cb_t)zend_error_cb);
	EXPECT_EQ(exceptions_before, (kaq_throw_hook_t)zend_throw_exception_hook);
	EXPECT_EQ(nullptr, old_execute_ex);
	kaq_start();
	EXPECT_EQ(execute_before, old_execute_ex);
}

TEST_F(HookChain, EndWithoutASavedExecuteHookLeavesTheEnginesAlone) {
	void (*execute_before)(zend_execute_data *) = old_execute_ex;
	kaq_end();
	kaq_end();
	EXPECT_EQ(execute_before, zend_execute_ex);
	kaq_start();
}

TEST_F(HookChain, EndUnderASettingThatIsOffRestoresNothing) {
	g->track_zend_execute = 0;
	kaq_end();
	EXPECT_EQ(zend_execute_ex, kaq_execute_ex);
	g->track_zend_execute = 1;
	kaq_end();
	kaq_start();
}

static int foreign_calls;
static void (*foreign_next)(zend_execute_data *);

static void foreign_execute_ex(zend_execute_data *execute_data) {
	foreign_calls++;
	foreign_next(execute_data);
}

TEST_F(HookChain, HookThatAnotherExtensionPutBeforeOursIsChained) {
	kaq_end();
	foreign_next = zend_execute_ex;
	zend_execute_ex = foreign_execute_ex;
	kaq_start();
	EXPECT_EQ(foreign_execute_ex, old_execute_ex);
	start_request();
	foreign_calls = 0;
	EXPECT_TRUE(run_php("function chained() {} chained();"));
	EXPECT_LE(1, foreign_calls);
	end_request();
	kaq_end();
	EXPECT_EQ(foreign_execute_ex, zend_execute_ex);
	zend_execute_ex = foreign_next;
	kaq_start();
}
