/* Calls of ours that run code of a script's. */
#pragma once

#include "curl_engine.h"

/* Code that ends in a fatal error: at once, and in its second round. */
#define DYING "eval('class Twice { function f() {} function f() {} }');"
#define DYING_LATER \
	"for ($i = 0; $i < 2; $i++) { eval('if ($i < 2) { function kaq_twice() {} }'); }"

/* An open request with a class Bad, whose iteration runs what it is given. The script's error
 * handler notes texts in $seen. */
class UnnoticedCallTest : public EngineTest {
protected:
	void SetUp() override {
		EngineTest::SetUp();
		start_request();
		ASSERT_EQ(0, g->control_signal);
		ASSERT_TRUE(run_php(
			"error_reporting(E_ALL); $seen = [];"
			"set_error_handler(function ($type, $text) use (&$seen) { $seen[] = $text; });"
			"class Bad implements IteratorAggregate {"
			"  public $how;"
			"  function __construct($how) { $this->how = $how; }"
			"  #[ReturnTypeWillChange]\n"
			"  function getIterator() { $how = $this->how; $how(); return new ArrayIterator([1]); }"
			"}"));
	}

	/* iterator_to_array of an object whose iteration runs this code. */
	static std::string iterate(const std::string &code) {
		zval object = php_value(("new Bad(function () { " + code + " })").c_str());
		zval *result = php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr);
		zval_ptr_dtor(&object);
		std::string json = result ? take_text(kaq_encode_zval_to_json(result)) : "none";
		php_zval_free(result);
		return json;
	}

	static std::string seen() {
		return php_json("$seen");
	}
};

/* $bad = new Bad; the frames that a bailout unwinds over hold the object for ever. */
inline void make_bad(const std::string &code) {
	leak_check_off();
	EXPECT_TRUE(run_php(("$bad = new Bad(function () { " + code + " });").c_str()));
	leak_check_on();
}

/* $bad, which the script holds for long enough: a bailout jumps over the release of a value. */
inline zval bad_object(void) {
	zval object = php_value("$bad");
	zval_ptr_dtor(&object);
	return object;
}

/* PHP 7.0's zend_clear_exception needs a running frame; after a bailout there is none. */
inline void drop_exception(void) {
	zend_object *pending = EG(exception);
	EG(exception) = nullptr;
	if (pending) {
		OBJ_RELEASE(pending);
	}
}
