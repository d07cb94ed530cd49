/* An engine with curl: built in, or loaded for the tests of a suite. */
#pragma once

#include "engine.h"
#include "curl/curl_stores.h"
#include "util/kaq_util_functions.h"

/* A value that the test owns. */
struct Value {
	zval value;

	explicit Value(const std::string &expression) : value(php_value(expression.c_str())) {
	}
	explicit Value(zval *container) : value(*container) {
		efree(container);
	}
	~Value() {
		zval_ptr_dtor(&value);
	}
	Value(const Value &) = delete;
	Value &operator=(const Value &) = delete;

	operator zval *() {
		return &value;
	}
	zend_long id() const {
		return kaq_zval_resource_id(&value);
	}
	/* Of what the value points at. */
	uint32_t refcount() const {
		return Z_REFCOUNT_P((zval *)&value);
	}
	void release() {
		zval_ptr_dtor(&value);
		ZVAL_NULL(&value);
	}
};

/* An open request that the collector does not monitor: curl's functions leave no spans. */
class CurlTest : public EngineTest {
protected:
	static void SetUpTestSuite();
	static void TearDownTestSuite();
	void SetUp() override;
};

/* The same, of a web request for "/page" that the collector monitors. */
class MonitoredCurlTest : public CurlTest {
protected:
	void SetUp() override;
};

/* Whether `work` leaves something on the heap of the request each time. Never where a sanitizer has
 * taken that heap's place, which then looks for itself. */
template <typename Work> bool leaks_in_request(Work work) {
	work();
	size_t before = zend_memory_usage(0);
	for (int round = 0; round < 10; round++) {
		work();
	}
	return zend_memory_usage(0) >= before + 10 * 8;
}

/* The extension's JSON text of a value; "(null)" for a null pointer. */
std::string json_of(const zval *value);
