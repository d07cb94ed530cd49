/* Calls of PHP functions that the script must not notice. */
#include "unnoticed_call.h"

#include <functional>
#include <thread>

#include "util/kaq_aside.h"
#include "util/kaq_util_functions.h"

static std::string outcome;
static const char *called;

/* Calls `called`, a function without arguments or one with the text "a". */
static std::string call_now(void) {
	zval text;
	ZVAL_STRING(&text, "a");
	zval *result = php_call_unnoticed(called, &text, nullptr, nullptr);
	zval_ptr_dtor(&text);
	std::string json = result ? take_text(kaq_encode_zval_to_json(result)) : "none";
	php_zval_free(result);
	return json;
}

static void call_and_note(void) {
	outcome = call_now();
}

class UnnoticedCall : public UnnoticedCallTest {
protected:
	void SetUp() override {
		UnnoticedCallTest::SetUp();
		outcome = "not called";
		called = "strlen";
		probe = call_and_note;
	}
};

TEST_F(UnnoticedCall, GivesTheResult) {
	EXPECT_EQ("1", call_now());
	EXPECT_EQ("[1]", iterate(""));
}

TEST_F(UnnoticedCall, OfAMissingFunctionGivesNull) {
	called = "kaq_no_such_function";
	EXPECT_EQ("none", call_now());
	EXPECT_EQ("[]", seen());
}

TEST_F(UnnoticedCall, WarningReachesNeitherHandlerNorLastError) {
	ASSERT_TRUE(run_php("error_clear_last();"));
	EXPECT_EQ("[1]", iterate("trigger_error('quiet', E_USER_WARNING);"));
	EXPECT_EQ("[]", seen());
	EXPECT_EQ("null", php_json("error_get_last()"));
}

TEST_F(UnnoticedCall, EarlierErrorStaysTheLastOne) {
	ASSERT_TRUE(run_php("restore_error_handler();"));
	EXPECT_TRUE(run_php("@trigger_error('the earlier one', E_USER_NOTICE);"));
	const std::string before = php_json("error_get_last()");
	ASSERT_NE(std::string::npos, before.find("the earlier one"));
	EXPECT_EQ("[1]", iterate("\n\ntrigger_error('quiet', E_USER_WARNING);"));
	EXPECT_EQ(before, php_json("error_get_last()"));
	EXPECT_EQ("1", call_now());
	EXPECT_EQ(before, php_json("error_get_last()"));
}

TEST_F(UnnoticedCall, HandlerAndErrorLevelAreTheScriptsAgainAfterwards) {
	ASSERT_TRUE(run_php("error_reporting(E_ALL & ~E_NOTICE);"));
	iterate("trigger_error('quiet', E_USER_WARNING);");
	EXPECT_EQ(std::to_string(E_ALL & ~E_NOTICE), php_json("error_reporting()"));
	EXPECT_TRUE(run_php("trigger_error('loud', E_USER_WARNING);"));
	EXPECT_EQ("[\"loud\"]", seen());
}

TEST_F(UnnoticedCall, ExceptionOfTheCallIsDropped) {
	probe = [] {
		called = "iterator_to_array";
		zval object = php_value("new Bad(function () { throw new Exception('inner'); })");
		zval *result = php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr);
		EXPECT_EQ(nullptr, EG(exception));
		EXPECT_EQ(nullptr, result);
		php_zval_free(result);
		zval_ptr_dtor(&object);
		outcome = "called";
	};
	EXPECT_TRUE(
		run_php("try { probe(); $after = 'went on'; } catch (Exception $e) { $after = 1; }"));
	EXPECT_EQ("called", outcome);
	EXPECT_EQ("\"went on\"", php_json("$after"));
	EXPECT_EQ("[]", seen());
}

TEST_F(UnnoticedCall, PendingExceptionStaysTheOnePending) {
	probe = [] {
		zend_throw_exception(nullptr, (char *)"pending", 7);
		zend_object *pending = EG(exception);
		ASSERT_NE(nullptr, pending);
		uint32_t refcount = GC_REFCOUNT(pending);
		outcome = call_now();
		EXPECT_EQ(pending, EG(exception));
		EXPECT_EQ(nullptr, php_call("phpversion", nullptr, nullptr, nullptr)) << "not put aside";
		EXPECT_EQ(refcount, GC_REFCOUNT(pending));
	};
	EXPECT_TRUE(
		run_php("try { probe(); $caught = 'nothing'; }"
				"catch (Exception $e) { $caught = [$e->getMessage(), $e->getPrevious()]; }"));
	EXPECT_EQ("1", outcome);
	EXPECT_EQ("[\"pending\",null]", php_json("$caught"));
}

TEST_F(UnnoticedCall, ExceptionOfTheCallDoesNotReplaceAPendingOne) {
	ASSERT_TRUE(run_php("$bad = new Bad(function () { throw new Exception('inner'); });"));
	probe = [] {
		zval object = php_value("$bad");
		zend_throw_exception(nullptr, (char *)"pending", 7);
		zend_object *pending = EG(exception);
		php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr));
		EXPECT_EQ(pending, EG(exception));
		zval_ptr_dtor(&object);
	};
	EXPECT_TRUE(
		run_php("try { probe(); $caught = 'nothing'; }"
				"catch (Exception $e) { $caught = [$e->getMessage(), $e->getPrevious()]; }"));
	EXPECT_EQ("[\"pending\",null]", php_json("$caught"));
}

TEST_F(UnnoticedCall, ErrorThatAHandlerWouldHaveTakenDoesNotEndTheRequest) {
	EXPECT_EQ("[1]", iterate("trigger_error('x', E_USER_ERROR);"));
	EXPECT_EQ("[1]", iterate("try { $text = (string)new ArrayObject; } catch (Error $e) {}"));
	EXPECT_EQ("[]", seen());
	EXPECT_FALSE(kaq_in_unnoticed_call());
	/* Where it is deprecated to raise such an error, that comes first. */
	EXPECT_TRUE(run_php("trigger_error('own', E_USER_ERROR);"));
	EXPECT_EQ("\"own\"", php_json("end($seen)"));
}

TEST_F(UnnoticedCall, FiberCannotBeLeftWithin) {
	EXPECT_TRUE(run_php(
		"if (class_exists('Fiber')) { $bad = new Bad(function () { Fiber::suspend(); });"
		"$fiber = new Fiber('probe'); } else { $bad = new Bad(function () { throw new Error; });"
		"}"));
	probe = [] {
		zval object = php_value("$bad");
		zval *result = php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr);
		outcome = result ? "a result" : "refused";
		php_zval_free(result);
		zval_ptr_dtor(&object);
	};
	EXPECT_TRUE(run_php("isset($fiber) ? $fiber->start() : probe();"
						"$ended = !isset($fiber) || $fiber->isTerminated();"));
	EXPECT_EQ("refused", outcome);
	EXPECT_EQ("true", php_json("$ended"));
	EXPECT_TRUE(run_php("if (isset($fiber)) { $fiber = new Fiber(function () { Fiber::suspend();});"
						"$fiber->start(); $fiber->resume(); }"));
}

TEST_F(UnnoticedCall, WhatItMeetsIsNobodysFailure) {
	iterate("trigger_error('x', E_USER_WARNING);");
	iterate("throw new Exception;");
	EXPECT_EQ(0, g->error_count);
	EXPECT_EQ(0, g->exception_count);
	EXPECT_TRUE(run_php("trigger_error('x', E_USER_WARNING);"
						"try { throw new Exception; } catch (Exception $e) {}"));
	EXPECT_EQ(0, g->error_count) << "a handler of the script takes them before the callback";
	EXPECT_EQ(1, g->exception_count);
}

TEST_F(UnnoticedCall, CallWithinACallEndsOnlyItself) {
	iterate("probe(); try { throw new Exception; } catch (Exception $e) {}");
	EXPECT_EQ("1", outcome);
	EXPECT_EQ(0, g->exception_count);
	EXPECT_FALSE(kaq_in_unnoticed_call());
}

TEST_F(UnnoticedCall, ThreadKnowsThatItIsInOneAndNoOtherDoes) {
	probe = [] {
		call_and_note();
		bool is_elsewhere = true;
		std::thread([&] { is_elsewhere = kaq_in_unnoticed_call(); }).join();
		outcome = kaq_in_unnoticed_call() && !is_elsewhere ? "in one" : "not";
	};
	EXPECT_FALSE(kaq_in_unnoticed_call());
	iterate("probe();");
	EXPECT_EQ("in one", outcome);
	EXPECT_FALSE(kaq_in_unnoticed_call());
}

TEST_F(UnnoticedCall, CallsLeaveNothingBehind) {
	ASSERT_TRUE(run_php(
		"$bad = new Bad(function () { trigger_error('quiet ' . mt_rand(), E_USER_WARNING); });"));
	probe = [] {
		call_now();
		zval object = php_value("$bad");
		php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr));
		zval_ptr_dtor(&object);
	};
	auto work = [] { run_php("probe();"); };
	EXPECT_FALSE(leaks(work));
	EXPECT_FALSE(leaks_in_request(work));
}

TEST_F(UnnoticedCall, EnginesStackIsWhatItWas) {
	ASSERT_TRUE(run_php("$bad = new Bad(function () { throw new Exception('inner'); });"));
	probe = [] {
		zval object = php_value("$bad");
		const zval *top = EG(vm_stack_top);
		const zend_execute_data *frame = EG(current_execute_data);
		call_now();
		php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr));
		EXPECT_EQ(top, EG(vm_stack_top));
		EXPECT_EQ(frame, EG(current_execute_data));
		outcome = "looked";
		zval_ptr_dtor(&object);
	};
	EXPECT_TRUE(run_php("probe();"));
	EXPECT_EQ("looked", outcome);
}

TEST_F(UnnoticedCall, DroppedExceptionIsReleased) {
	ASSERT_TRUE(run_php("$bad = new Bad(function () { throw new Exception('inner'); });"));
	probe = [] {
		zval object = php_value("$bad");
		php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr));
		zval_ptr_dtor(&object);
	};
	ASSERT_TRUE(run_php("probe();"));
	uint32_t objects = EG(objects_store).top;
	EXPECT_FALSE(leaks_in_request([] { run_php("probe();"); }));
	EXPECT_EQ(objects, EG(objects_store).top);
}

/* How the state was where the bailout of a call arrived. */
static std::string state_after_bailout(const std::function<void()> &call) {
	zend_object *pending = EG(exception);
	zval handler;
	ZVAL_COPY_VALUE(&handler, &EG(user_error_handler));
	int level = EG(error_reporting);
	volatile bool caught = false;
	zend_try {
		call();
	}
	zend_catch {
		caught = true;
	}
	zend_end_try();
	std::string state = caught ? "caught" : "went on";
	state += pending == EG(exception) ? "" : ", other exception";
	state += Z_TYPE(handler) == Z_TYPE(EG(user_error_handler)) &&
					 Z_PTR(handler) == Z_PTR(EG(user_error_handler))
				 ? ""
				 : ", other handler";
	return state + (level == EG(error_reporting) ? "" : ", other level");
}

static void die_within(void) {
	zval object = bad_object();
	outcome = state_after_bailout(
		[&] { php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr)); });
	zend_bailout();
}

TEST_F(UnnoticedCall, FatalErrorPassesOnWithEverythingPutBackAndIsAFailure) {
	int failures = 0;
	for (const char *code : {DYING, DYING_LATER}) {
		make_bad(code);
		probe = die_within;
		EXPECT_TRUE(dies_in_php("probe();"));
		EXPECT_EQ("caught", outcome);
		EXPECT_EQ(++failures, g->error_count);
		CG(unclean_shutdown) = 0;
	}
}

TEST_F(UnnoticedCall, ErrorThatNoHandlerAsksForPassesOn) {
	int failures = 0;
	for (const char *handler : {"set_error_handler(null);",
								"set_error_handler(function () {}, E_ALL & ~E_USER_ERROR);"}) {
		EXPECT_TRUE(run_php(handler));
		make_bad("trigger_error('x', E_USER_ERROR);");
		probe = die_within;
		outcome = "not called";
		EXPECT_TRUE(dies_in_php("probe();"));
		EXPECT_EQ("caught", outcome);
		EXPECT_EQ(++failures, g->error_count);
		CG(unclean_shutdown) = 0;
	}
}

TEST_F(UnnoticedCall, FatalErrorPassesOnWithThePendingExceptionPutBack) {
	make_bad(DYING);
	probe = [] {
		zval object = bad_object();
		zend_throw_exception(nullptr, (char *)"pending", 7);
		outcome = state_after_bailout([&] {
			php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr));
		});
		EXPECT_NE(nullptr, EG(exception));
		drop_exception();
		zend_bailout();
	};
	EXPECT_TRUE(dies_in_php("probe();"));
	EXPECT_EQ("caught", outcome);
	CG(unclean_shutdown) = 0;
}

/* An exit is a bailout, in later engines an exception that cannot be caught. */
static void exit_in(bool exception_is_pending) {
	outcome = "nothing ran";
	probe = [] { outcome = "went on"; };
	zval object = bad_object();
	if (exception_is_pending) {
		zend_throw_exception(nullptr, (char *)"pending", 7);
	}
	zend_object *pending = EG(exception);
	zval held;
	ZVAL_NULL(&held);
	if (pending) {
		ZVAL_OBJ(&held, pending);
		Z_ADDREF(held);
	}
	zval *result = php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr);
	EXPECT_NE(pending, EG(exception)) << "or it would not have returned";
	php_zval_free(result);
	if (pending) {
		EXPECT_EQ(1u, Z_REFCOUNT(held));
		zval_ptr_dtor(&held);
	}
}

static void exit_within(void) {
	exit_in(false);
}

static void exit_within_an_exception(void) {
	exit_in(true);
}

TEST_F(UnnoticedCall, ExitPassesOnWhateverWasPending) {
	for (void (*within)(void) : {exit_within, exit_within_an_exception}) {
		make_bad("exit;");
		probe = within;
		leak_check_off();
		run_php("try { probe(); probe(); } catch (Throwable $e) { probe(); } finally { probe(); }");
		leak_check_on();
		drop_exception();
		EXPECT_EQ("nothing ran", outcome);
		CG(unclean_shutdown) = 0;
	}
}
