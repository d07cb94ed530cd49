/* PHP values as JSON text. */
#include "engine.h"

#include <locale.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>

class JsonValue : public EngineTest {
protected:
	void SetUp() override {
		EngineTest::SetUp();
		start_request();
	}

	static std::string text_of(zval *value) {
		return take_text(kaq_encode_zval_to_json(value));
	}
};

TEST_F(JsonValue, NullPointerGivesNull) {
	EXPECT_EQ(nullptr, kaq_encode_zval_to_json(nullptr));
}

TEST_F(JsonValue, NullPointerWithinATextIsWrittenAsNull) {
	smart_str out = {nullptr, 0};
	kaq_encode_zval_to_json_internal(nullptr, &out, 0);
	EXPECT_EQ("null", take_buffer(&out));
}

TEST_F(JsonValue, UndefinedAndNull) {
	zval value;
	ZVAL_UNDEF(&value);
	EXPECT_EQ("null", text_of(&value));
	EXPECT_EQ("null", php_json("null"));
}

TEST_F(JsonValue, Booleans) {
	EXPECT_EQ("false", php_json("false"));
	EXPECT_EQ("true", php_json("true"));
}

TEST_F(JsonValue, IntegersAreSignedDecimals) {
	EXPECT_EQ("0", php_json("0"));
	EXPECT_EQ("-1", php_json("-1"));
	EXPECT_EQ("1234567890", php_json("1234567890"));
	EXPECT_EQ("9223372036854775807", php_json("PHP_INT_MAX"));
	EXPECT_EQ("-9223372036854775808", php_json("PHP_INT_MIN"));
}

static const struct {
	double value;
	const char *text;
} doubles[] = {{3.0, "3"},
			   {-3.0, "-3"},
			   {0.0, "0"},
			   {-0.0, "-0"},
			   {1.5, "1.5"},
			   {0.1, "0.1"},
			   {1.0 / 3, "0.33333333333333"},
			   {2.0 / 3, "0.66666666666667"},
			   {123456789.125, "123456789.125"},
			   {12345678901234.0, "12345678901234"},
			   {99999999999999.0, "99999999999999"},
			   {1e14, "1.0e+14"},
			   {123456789012345.0, "1.2345678901234e+14"},
			   {0.0001, "0.0001"},
			   {0.00001, "1.0e-5"},
			   {1e100, "1.0e+100"},
			   {-2.5e-9, "-2.5e-9"}};

TEST_F(JsonValue, DoublesHaveFourteenSignificantDigits) {
	for (const auto &one : doubles) {
		zval value;
		ZVAL_DOUBLE(&value, one.value);
		EXPECT_EQ(one.text, text_of(&value)) << one.value;
	}
}

TEST_F(JsonValue, DoublesFollowTheEnginesOwnFormatter) {
	for (const auto &one : doubles) {
		char engine_text[64];
		zval value;
		ZVAL_DOUBLE(&value, one.value);
		ap_php_snprintf(engine_text, sizeof(engine_text), "%.14g", one.value);
		EXPECT_EQ(engine_text, text_of(&value));
	}
}

TEST_F(JsonValue, InfinityAndNanAreNull) {
	for (double number : {(double)INFINITY, -(double)INFINITY, (double)NAN}) {
		zval value;
		ZVAL_DOUBLE(&value, number);
		EXPECT_EQ("null", text_of(&value));
	}
}

/* A locale with a decimal comma, compiled on the spot: hardly any is installed everywhere. */
static bool use_decimal_comma(const std::string &directory) {
	std::string source = directory + "/source";
	FILE *file = fopen(source.c_str(), "w");
	fputs("LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\ngrouping 3;3\nEND LC_NUMERIC\n",
		  file);
	fclose(file);
	std::string command =
		"localedef --no-archive -c -i " + source + " " + directory + "/comma >/dev/null 2>&1";
	/* Ends with 1: the other categories of the locale are missing. */
	if (system(command.c_str()) == -1) {
		return false;
	}
	setenv("LOCPATH", directory.c_str(), 1);
	return setlocale(LC_NUMERIC, "comma") != nullptr;
}

TEST_F(JsonValue, DecimalPointDoesNotFollowTheLocale) {
	char directory[] = "/tmp/kaq-locale-XXXXXX";
	ASSERT_NE(nullptr, mkdtemp(directory));
	ASSERT_TRUE(use_decimal_comma(directory));
	std::string point = localeconv()->decimal_point;
	zval value;
	ZVAL_DOUBLE(&value, 1234.5);
	std::string text = text_of(&value);
	setlocale(LC_NUMERIC, "C");
	unsetenv("LOCPATH");
	(void)!system((std::string("rm -r ") + directory).c_str());
	EXPECT_EQ(",", point) << "the locale took no effect";
	EXPECT_EQ("1234.5", text);
}

TEST_F(JsonValue, StringsAreQuotedAndEscaped) {
	EXPECT_EQ("\"\"", php_json("''"));
	EXPECT_EQ("\"a\\\"b\\\\c\\/d\"", php_json("'a\"b\\\\c/d'"));
	EXPECT_EQ("\"\\b\\t\\n\\f\\r\\u0001\\u001f\\u000b\"",
			  php_json("\"\\x08\\x09\\x0a\\x0c\\x0d\\x01\\x1f\\x0b\""));
	EXPECT_EQ("\"\x7f\xc3\xa9\xff\xfe\"", php_json("\"\\x7f\\xc3\\xa9\\xff\\xfe\""));
}

TEST_F(JsonValue, StringEndsAtItsFirstNul) {
	EXPECT_EQ("\"ab\"", php_json("\"ab\\0cd\""));
	EXPECT_EQ("\"\"", php_json("\"\\0cd\""));
}

TEST_F(JsonValue, StringsAcrossTheWritersBlocks) {
	for (size_t length : {4095, 4096, 4097, 8192, 8193, 20000}) {
		std::string expression = "str_repeat('/', " + std::to_string(length) + ")";
		std::string text = php_json(expression.c_str());
		ASSERT_EQ(2 * length + 2, text.size());
		EXPECT_EQ(std::string::npos, text.substr(1, 2 * length).find("//"));
	}
}

TEST_F(JsonValue, ArrayWithKeysFromZeroOnIsAList) {
	EXPECT_EQ("[]", php_json("[]"));
	EXPECT_EQ("[1,\"a\",null]", php_json("[1, 'a', null]"));
	EXPECT_EQ("[1,2]", php_json("[0 => 1, 1 => 2]"));
}

TEST_F(JsonValue, AnyOtherKeysMakeAnObjectInTheArraysOrder) {
	EXPECT_EQ("{\"1\":\"a\",\"2\":\"b\"}", php_json("[1 => 'a', 2 => 'b']"));
	EXPECT_EQ("{\"1\":\"b\",\"0\":\"a\"}", php_json("[1 => 'b', 0 => 'a']"));
	EXPECT_EQ("{\"0\":1,\"x\":2}", php_json("[1, 'x' => 2]"));
	EXPECT_EQ("{\"z\":1,\"a\":2}", php_json("['z' => 1, 'a' => 2]"));
	EXPECT_EQ("{\"\":1}", php_json("['' => 1]"));
}

TEST_F(JsonValue, DeletedSlotsAreSkipped) {
	EXPECT_TRUE(run_php("$a = [0, 1, 2]; unset($a[2]); $b = [0, 1, 2]; unset($b[1]);"
						"$c = [0, 1, 2]; unset($c[0]); $d = ['x' => 1, 0, 1]; unset($d['x']);"
						"$e = [1]; unset($e[0]);"));
	EXPECT_EQ("[0,1]", php_json("$a"));
	EXPECT_EQ("{\"0\":0,\"2\":2}", php_json("$b"));
	EXPECT_EQ("{\"1\":1,\"2\":2}", php_json("$c"));
	EXPECT_EQ("[0,1]", php_json("$d"));
	EXPECT_EQ("[]", php_json("$e"));
}

TEST_F(JsonValue, NegativeKeysArePrintedUnsignedAndThatIsMeant) {
	EXPECT_EQ("{\"18446744073709551615\":\"x\"}", php_json("[-1 => 'x']"));
	EXPECT_EQ("{\"9223372036854775808\":0}", php_json("[PHP_INT_MIN => 0]"));
	EXPECT_EQ("{\"9223372036854775807\":0}", php_json("[PHP_INT_MAX => 0]"));
}

TEST_F(JsonValue, KeysAreEscapedAndEndAtTheirFirstNul) {
	EXPECT_EQ("{\"a\\/\\\"b\":1,\"cut\":2,\"\\n\":3}",
			  php_json("['a/\"b' => 1, \"cut\\0off\" => 2, \"\\n\" => 3]"));
}

TEST_F(JsonValue, ObjectsBecomeAMarkerWhateverTheyHold) {
	EXPECT_EQ("\"[object]\"", php_json("new ArrayObject([1])"));
	EXPECT_EQ("[\"[object]\",\"[object]\"]", php_json("[(object)['a' => 1], function () {}]"));
}

TEST_F(JsonValue, ResourcesBecomeAMarkerOpenOrClosed) {
	EXPECT_TRUE(run_php("$open = fopen('php://memory', 'r'); $shut = fopen('php://memory', 'r');"
						"fclose($shut);"));
	EXPECT_EQ("[\"[resource]\",\"[resource]\"]", php_json("[$open, $shut]"));
}

TEST_F(JsonValue, ReferencesAreNullAndThatIsMeant) {
	EXPECT_TRUE(run_php("$x = 5; $a = [1]; $a[1] = &$x; $self = []; $self['me'] = &$self;"));
	EXPECT_EQ("[1,null]", php_json("$a"));
	EXPECT_EQ("{\"me\":null}", php_json("$self"));
	EXPECT_TRUE(run_php("unset($self['me']);"));
}

TEST_F(JsonValue, EngineInternalTypesAreNull) {
	zval target;
	ZVAL_LONG(&target, 5);
	zval value;
	ZVAL_INDIRECT(&value, &target);
	EXPECT_EQ("null", text_of(&value));
	ZVAL_PTR(&value, &target);
	EXPECT_EQ("null", text_of(&value));
}

TEST_F(JsonValue, ElementThatIsOnlyAPointerToAVariableIsNull) {
	EXPECT_TRUE(run_php("$seen = 5;"));
	zval target;
	ZVAL_LONG(&target, 5);
	zval pointer;
	ZVAL_INDIRECT(&pointer, &target);
	zval array;
	array_init(&array);
	zend_hash_str_update(Z_ARRVAL(array), "v", 1, &pointer);
	EXPECT_EQ("{\"v\":null}", text_of(&array));
	zend_hash_str_del(Z_ARRVAL(array), "v", 1);
	zval_ptr_dtor(&array);
}

/* An array within an array, `levels` times around `core`. */
static std::string nested(int levels, const char *core) {
	std::string code = core;
	for (int i = 0; i < levels; i++) {
		code = "[" + code + "]";
	}
	return code;
}

TEST_F(JsonValue, LevelThirtyTwoIsStillWritten) {
	std::string text = nested(32, "7");
	EXPECT_EQ(text, php_json(text.c_str()));
}

TEST_F(JsonValue, LevelThirtyThreeIsNull) {
	EXPECT_EQ(nested(33, "null"), php_json(nested(33, "7").c_str()));
	EXPECT_EQ(nested(33, "null"), php_json(nested(40, "7").c_str()));
	EXPECT_EQ(nested(33, "null"), php_json(nested(33, "[]").c_str()));
}

TEST_F(JsonValue, DepthIsCountedFromWhatTheCallerSays) {
	zval value;
	ZVAL_LONG(&value, 7);
	for (int depth : {32, 33, -1}) {
		smart_str out = {nullptr, 0};
		kaq_encode_zval_to_json_internal(&value, &out, depth);
		EXPECT_EQ(depth == 33 ? "null" : "7", take_buffer(&out)) << depth;
	}
}

TEST_F(JsonValue, NothingIsWrittenBetweenTheParts) {
	EXPECT_EQ("{\"a\":[1,{\"b\":[]}],\"c\":{\"1\":true}}",
			  php_json("['a' => [1, ['b' => []]], 'c' => [1 => true]]"));
}

TEST_F(JsonValue, TextIsAppendedBehindWhatTheBufferHolds) {
	smart_str out = {nullptr, 0};
	kaq_buf_literal(&out, "x");
	zval value;
	ZVAL_TRUE(&value);
	kaq_encode_zval_to_json_internal(&value, &out, 0);
	kaq_append_unsigned_long_long(&out, UINT64_MAX);
	kaq_append_signed(&out, INT64_MIN);
	EXPECT_EQ("xtrue18446744073709551615-9223372036854775808", take_buffer(&out));
}

TEST_F(JsonValue, NullAndEmptyTextsAppendNothingOrTwoQuotes) {
	smart_str out = {nullptr, 0};
	kaq_append_as_json_compatible_string(&out, nullptr);
	kaq_append_as_json_compatible_string(&out, "");
	EXPECT_EQ(nullptr, out.s);
	kaq_append_as_json_compatible_string_withquotes(&out, nullptr);
	kaq_append_as_json_compatible_string_withquotes(&out, "");
	EXPECT_EQ("\"\"\"\"", take_buffer(&out));
}

TEST_F(JsonValue, ReservedFunctionDoesNothing) {
	smart_str out = {nullptr, 0};
	kaq_append_as_json_key_value(&out, "key", "value", 1, 2);
	EXPECT_EQ(nullptr, out.s);
}

TEST_F(JsonValue, EncodingLeavesTheValueAndTheHeapAsTheyWere) {
	zval value = php_value("['a' => [1, 2.5, 'x'], 'b' => str_repeat('y', 9000)]");
	EXPECT_FALSE(leaks([&] { free(kaq_encode_zval_to_json(&value)); }));
	EXPECT_EQ(2u, zend_hash_num_elements(Z_ARRVAL(value)));
	zval_ptr_dtor(&value);
}

/* One text of a megabyte, many times: nothing else keeps a shared value from filling the memory. */
TEST_F(JsonValue, TextBeyondTheLimitCountsAsAbsent) {
	zval fits = php_value("array_fill(0, 100, str_repeat('x', 1 << 20))");
	char *text = kaq_encode_zval_to_json(&fits);
	ASSERT_NE(nullptr, text);
	EXPECT_EQ(100 * ((1u << 20) + 3) + 1, strlen(text));
	free(text);
	zval_ptr_dtor(&fits);
	zval exceeds = php_value("array_fill(0, 129, str_repeat('x', 1 << 20))");
	EXPECT_EQ(nullptr, kaq_encode_zval_to_json(&exceeds));
	zval_ptr_dtor(&exceeds);
	zval doubling = php_value("(function () { $v = ['leaf'];"
							  "for ($i = 0; $i < 31; $i++) $v = [$v, $v]; return $v; })()");
	EXPECT_EQ(nullptr, kaq_encode_zval_to_json(&doubling));
	zval_ptr_dtor(&doubling);
}

/* A value behind so much text that the buffer grows beyond the limit while it is written. */
TEST_F(JsonValue, AppendedTextIsTheSameWhereverItBegins) {
	zval fits = php_value("array_fill(0, 100, str_repeat('x', 1 << 20))");
	zval exceeds = php_value("array_fill(0, 129, str_repeat('x', 1 << 20))");
	for (size_t before : {(size_t)0, (size_t)10, (size_t)50 << 20}) {
		smart_str out = {nullptr, 0};
		kaq_buf_commit(&out, (char *)memset(kaq_buf_reserve(&out, before), 'b', before) + before);
		EXPECT_FALSE(kaq_append_json_value(&out, nullptr));
		EXPECT_FALSE(kaq_append_json_value(&out, &exceeds));
		EXPECT_EQ(before, kaq_buf_length(&out));
		EXPECT_TRUE(kaq_append_json_value(&out, &fits));
		EXPECT_EQ(before + 100 * ((1u << 20) + 3) + 1, kaq_buf_length(&out));
		EXPECT_EQ("x\"]", std::string(ZSTR_VAL(out.s) + ZSTR_LEN(out.s) - 3, 3));
		kaq_buf_free(&out);
	}
	zval_ptr_dtor(&fits);
	zval_ptr_dtor(&exceeds);
}
