/* Errors and exceptions from the inside: counters, caps and hooks. */
#include "engine.h"

#include <stdarg.h>
#include <string.h>

#include "diagnostics/stacktrace.h"
#include "util/kaq_util_functions.h"

static int passed_errors;
static int passed_type;
static std::string passed_file;
static uint32_t passed_line;
static std::string passed_message;

static void take_error(KAQ_ERROR_CB_PARAMS) {
	kaq_message text;
	KAQ_ERROR_MESSAGE(text);
	passed_errors++;
	passed_type = type;
	passed_file = KAQ_ERROR_FILE ? KAQ_ERROR_FILE : "(null)";
	passed_line = error_lineno;
	passed_message = text.text;
	kaq_message_free(&text);
}

/* The callback is called as the engine does that has it: with a format, or with the message. */
template <typename File>
static void raise_with(void (*callback)(int, File, const uint32_t, const char *, va_list), int type,
					   File file, uint32_t line, ...) {
	va_list args;
	va_start(args, line);
	callback(type, file, line, "%s", args);
	va_end(args);
}

template <typename File>
static void raise_with(void (*callback)(int, File, const uint32_t, zend_string *), int type,
					   File file, uint32_t line, const char *text) {
	zend_string *message = zend_string_init(text, strlen(text), 0);
	callback(type, file, line, message);
	zend_string_release(message);
}

static void report(int type, const char *text = "broke") {
	raise_with(kaq_error_cb, type, {}, 7, text);
}

static int passed_exceptions;
static kaq_thrown *last_thrown;

static void take_exception(kaq_thrown *exception) {
	passed_exceptions++;
	last_thrown = exception;
}

/* One open span; the callbacks behind the extension's are the test's own. */
class Failures : public SpanTest {
protected:
	void SetUp() override {
		SpanTest::SetUp();
		saved_error_cb_ = old_error_cb;
		saved_exception_cb_ = old_exception_cb;
		old_error_cb = take_error;
		old_exception_cb = take_exception;
		passed_errors = passed_exceptions = 0;
		last_thrown = nullptr;
		g->track_errors = 1;
		g->control_signal = 1;
		node = open_span("call");
		fi = &node->data.function_info;
	}

	void TearDown() override {
		g->control_signal = 0;
		old_error_cb = saved_error_cb_;
		old_exception_cb = saved_exception_cb_;
		SpanTest::TearDown();
	}

	std::string records() const {
		const smart_str *text = &kaq_arguments_of(fi)->einfo;
		return text->s ? std::string(ZSTR_VAL(text->s), ZSTR_LEN(text->s)) : "(none)";
	}

	/* [name count] of each class, in the order of the list. */
	std::string counters() const {
		std::string text;
		for (int i = 0; i < g->exception_count; i++) {
			text += std::string("[") + g->exceptionslist[i]->name + " " +
					std::to_string(g->exceptionslist[i]->count) + "]";
		}
		return text;
	}

	void throw_in_php(const std::string &class_name, const std::string &message = "m") {
		std::string code =
			"try { throw new " + class_name + "('" + message + "'); } catch (Exception $e) {}";
		EXPECT_TRUE(run_php(code.c_str()));
	}

	kaq_node *node = nullptr;
	kaq_function *fi = nullptr;

private:
	kaq_error_cb_t saved_error_cb_ = nullptr;
	kaq_throw_hook_t saved_exception_cb_ = nullptr;
};

/* Errors. */

struct Severity {
	int type;
	int lowest; /* the highest kaq.track_errors that still records it */
	const char *level;
};

static const Severity severities[] = {{E_NOTICE, 1, "Notice"},
									  {E_USER_NOTICE, 1, "Notice"},
									  {KAQ_E_STRICT, 1, "Notice"},
									  {E_DEPRECATED, 1, "Notice"},
									  {E_USER_DEPRECATED, 1, "Notice"},
									  {E_WARNING, 2, "Warning"},
									  {E_CORE_WARNING, 2, "Warning"},
									  {E_COMPILE_WARNING, 2, "Warning"},
									  {E_USER_WARNING, 2, "Warning"},
									  {E_ERROR, 3, "Error"},
									  {E_PARSE, 3, "Error"},
									  {E_CORE_ERROR, 3, "Error"},
									  {E_COMPILE_ERROR, 3, "Error"},
									  {E_USER_ERROR, 3, "Error"},
									  {E_RECOVERABLE_ERROR, 3, "Error"}};

TEST_F(Failures, EachTypeHasItsSeverityAndLevel) {
	for (const Severity &severity : severities) {
		for (int track = -1; track <= 4; track++) {
			kaq_buf_free(&kaq_arguments_of(fi)->einfo);
			fi->isError = fi->priority = g->error_count = 0;
			g->track_errors = track;
			report(severity.type);
			bool is_recorded = track <= severity.lowest;
			EXPECT_EQ(is_recorded, kaq_arguments_of(fi)->einfo.s != nullptr)
				<< severity.type << " " << track;
			EXPECT_EQ((int)is_recorded, fi->isError);
			EXPECT_EQ(is_recorded ? PRIORITY_1 : PRIORITY_0, fi->priority);
			EXPECT_EQ((int)is_recorded, g->error_count);
			if (is_recorded) {
				std::string level = std::string("\"level\":\"") + severity.level + "\"";
				EXPECT_NE(std::string::npos, records().find(level)) << records();
			}
		}
	}
	EXPECT_EQ(15 * 6, passed_errors);
}

TEST_F(Failures, ErrorWithoutAFileHasAnEmptyOne) {
	clock_stands_at(1234567);
	report(E_WARNING, "broke");
	EXPECT_EQ("{\"err_clz\":\"ERROR\",\"filename\":\"\",\"linenumber\":7,\"time\":1234567,"
			  "\"level\":\"Warning\",\"str\":\"broke\"}",
			  records());
	EXPECT_EQ(0, fi->isFault);
}

TEST_F(Failures, CallbackBehindGetsAllThatTheEngineSaid) {
	g->track_errors = 1;
	zend_error(E_USER_WARNING, "%d of %s", 3, "five");
	EXPECT_EQ(1, passed_errors);
	EXPECT_EQ(E_USER_WARNING, passed_type);
	EXPECT_EQ("3 of five", passed_message);
	EXPECT_NE(std::string::npos, records().find("\"str\":\"3 of five\""));
	report(E_NOTICE, "direct");
	EXPECT_EQ("(null)", passed_file);
	EXPECT_EQ(7u, passed_line);
}

TEST_F(Failures, FlagsThatAnEngineAddsToTheTypeArePassedOnAndDoNotMatter) {
	const int flag = 1 << 15;
	g->track_errors = 2;
	report(E_NOTICE | flag);
	EXPECT_EQ("(none)", records());
	report(E_WARNING | flag);
	EXPECT_NE(std::string::npos, records().find("\"level\":\"Warning\""));
	EXPECT_EQ(E_WARNING | flag, passed_type);
}

TEST_F(Failures, EleventhErrorIsPassedOnButNeitherRecordedNorCounted) {
	for (int i = 0; i < 10; i++) {
		report(E_NOTICE);
	}
	std::string ten = records();
	report(E_ERROR);
	EXPECT_EQ(ten, records());
	EXPECT_EQ(10, g->error_count);
	EXPECT_EQ(11, passed_errors);
}

TEST_F(Failures, ErrorWithoutAnOpenSpanStillCounts) {
	kaq_close_node(node);
	ASSERT_EQ(nullptr, g->current_node);
	report(E_WARNING);
	EXPECT_EQ(1, g->error_count);
	EXPECT_EQ(1, passed_errors);
}

TEST_F(Failures, SpanThatIsNotOpenIsLeftAlone) {
	for (int state : {KAQ_NODE_CREATED, KAQ_NODE_BUFFERED}) {
		node->data.state = state;
		report(E_WARNING);
		throw_in_php("Exception");
		EXPECT_EQ("(none)", records()) << state;
		EXPECT_EQ(0, fi->isError + fi->isFault + fi->priority);
	}
	EXPECT_EQ(2, g->error_count);
	EXPECT_EQ("[Exception 2]", counters());
	node->data.state = KAQ_NODE_OPEN;
}

TEST_F(Failures, WhatComesUpWhileRecordingIsPassedOnUnrecorded) {
	g->is_recording_failure = 1;
	report(E_WARNING);
	throw_in_php("Exception");
	EXPECT_EQ("(none)", records());
	EXPECT_EQ(0, g->error_count);
	EXPECT_EQ("", counters());
	EXPECT_EQ(1, passed_errors);
	EXPECT_EQ(1, passed_exceptions);
	g->is_recording_failure = 0;
	report(E_WARNING);
	EXPECT_NE("(none)", records());
}

static int recording_meanwhile;

static void look_at_recording(KAQ_ERROR_CB_PARAMS) {
	recording_meanwhile = kaq_get_globals()->is_recording_failure;
	take_error(KAQ_ERROR_CB_ARGS);
}

TEST_F(Failures, RecordingHasEndedWhenTheCallbackBehindRuns) {
	recording_meanwhile = -1;
	old_error_cb = look_at_recording;
	report(E_WARNING);
	EXPECT_EQ(0, recording_meanwhile);
}

/* Exceptions. */

TEST_F(Failures, ExceptionIsRecordedWithItsProperties) {
	clock_stands_at(7654321);
	EXPECT_TRUE(run_php("class Placed extends Exception { function __construct() {"
						"$this->message = 'msg'; $this->file = 'a.php'; $this->line = 12; } }"
						"try { throw new Placed; } catch (Exception $e) {}"));
	EXPECT_EQ("{\"err_clz\":\"Placed\",\"filename\":\"a.php\",\"linenumber\":12,\"time\":7654321,"
			  "\"level\":\"Warning\",\"str\":\"msg\"}",
			  records());
	EXPECT_EQ(1, fi->isFault);
	EXPECT_EQ(0, fi->isError);
	EXPECT_EQ(PRIORITY_1, fi->priority);
	EXPECT_EQ(1, passed_exceptions);
}

TEST_F(Failures, ClassesAreCountedInTheOrderOfTheirFirstThrow) {
	for (const char *name : {"LogicException", "Exception", "LogicException", "ErrorException",
							 "LogicException", "Exception"}) {
		throw_in_php(name);
	}
	EXPECT_EQ("[LogicException 3][Exception 2][ErrorException 1]", counters());
}

TEST_F(Failures, ExceptionWithoutAnOpenSpanStillCounts) {
	kaq_close_node(node);
	throw_in_php("Exception");
	throw_in_php("Exception");
	EXPECT_EQ("[Exception 2]", counters());
}

TEST_F(Failures, TenClassesFillTheListForGood) {
	for (int i = 0; i < 11; i++) {
		std::string name = "Numbered" + std::to_string(i);
		std::string code =
			"if (!class_exists('" + name + "')) { class " + name + " extends Exception {} }";
		EXPECT_TRUE(run_php(code.c_str()));
		if (i == 9) {
			throw_in_php("Numbered0");
		}
		throw_in_php(name);
	}
	std::string ten = counters();
	EXPECT_EQ(0u, ten.find("[Numbered0 2][Numbered1 1]"));
	EXPECT_EQ(std::string::npos, ten.find("Numbered10"));
	EXPECT_EQ(10, g->exception_count);
	std::string text = records();
	fi->isFault = 0;
	throw_in_php("Numbered0");
	EXPECT_EQ(ten, counters());
	EXPECT_EQ(text, records());
	EXPECT_EQ(0, fi->isFault);
	EXPECT_EQ(13, passed_exceptions);
}

TEST_F(Failures, NullExceptionGoesStraightToTheHookBehind) {
	kaq_throw_exception_hook(nullptr);
	EXPECT_EQ(1, passed_exceptions);
	EXPECT_EQ(nullptr, last_thrown);
	EXPECT_EQ("(none)", records());
	EXPECT_EQ("", counters());
}

TEST_F(Failures, WithoutAHookBehindNothingIsCalled) {
	old_exception_cb = nullptr;
	kaq_throw_exception_hook(nullptr);
	throw_in_php("Exception");
	EXPECT_EQ("[Exception 1]", counters());
}

TEST_F(Failures, NamesAreThoseOfTheClassesAndStayWhateverTheScriptDoes) {
	EXPECT_TRUE(run_php(
		"function passing() { eval('class Passing extends Exception {}');"
		"  class_alias('Passing', 'Alias'); try { throw new Alias; } catch (Exception $e) {} }"
		"passing(); gc_collect_cycles(); $junk = [];"
		"for ($i = 0; $i < 20000; $i++) { $junk[] = str_repeat(chr(65 + $i % 26), 8); }"));
	EXPECT_EQ("[Passing 1]", counters());
	const zend_class_entry *ce =
		(const zend_class_entry *)zend_hash_str_find_ptr(EG(class_table), "passing", 7);
	ASSERT_NE(nullptr, ce);
	EXPECT_EQ(ZSTR_VAL(ce->name), g->exceptionslist[0]->name);
	EXPECT_TRUE(run_php("try { throw new Alias; } catch (Exception $e) {}"));
	EXPECT_EQ("[Passing 2]", counters());
}

TEST_F(Failures, CountersAreForgottenAtTheNextRequestStart) {
	throw_in_php("Exception");
	report(E_WARNING);
	end_request();
	start_request();
	EXPECT_EQ(0, g->exception_count);
	EXPECT_EQ(0, g->error_count);
	EXPECT_EQ(0, g->is_recording_failure);
	for (int i = 0; i < KAQ_EXCEPTION_SLOTS; i++) {
		EXPECT_EQ(nullptr, g->exceptionslist[i]->name);
		EXPECT_EQ(0, g->exceptionslist[i]->count);
	}
}

TEST_F(Failures, RecordingLeavesNothingOnTheHeap) {
	EXPECT_FALSE(leaks([&] {
		kaq_node *failing = open_span("failing");
		g->error_count = 0;
		zend_error(E_USER_WARNING, "%s", "again");
		throw_in_php("Exception");
		failing->data.function_info.isError = failing->data.function_info.isFault = 0;
		failing->data.function_info.priority = PRIORITY_0;
		kaq_close_node(failing);
		ASSERT_EQ(node, g->current_node);
	}));
}
