#include "calls/arguments.h"

#include "util/engine_access.h"
#include "util/kaq_assert.h"

#include <string.h>

/* A letter of a layout takes up to two outputs, and may have a "!" added to it. */
#define KAQ_MAX_OUTPUTS (2 * KAQ_LAYOUT_LENGTH)
#define KAQ_MAX_LETTERS (2 * KAQ_LAYOUT_LENGTH + 1)

/* A layout in the form that the engine's parser takes, and where its outputs go. */
struct kaq_reading {
	char letters[KAQ_MAX_LETTERS];
	void *output[KAQ_MAX_OUTPUTS];
	int outputs;
	int texts, numbers, values;
	bool is_handle[KAQ_LAYOUT_LENGTH];
	zval *number[KAQ_LAYOUT_LENGTH];
	bool by_engine; /* numbers are read by the engine's parser, with its messages */
	zend_bool flag; /* boolean arguments and "is null" marks, which nobody reads */
	int ignored_count;
};

static void kaq_add_output(kaq_reading *reading, void *output) {
	reading->output[reading->outputs++] = output;
}

static char kaq_add_value(kaq_reading *reading, kaq_arguments *arguments, char letter) {
	reading->is_handle[reading->values] = letter == 'r';
	kaq_add_output(reading, &arguments->value[reading->values++]);
	return letter == 'r' ? 'z' : letter;
}

/* The parser would report "12a", which the wrapped function is going to report itself. So a number
 * is read as a value and converted silently. */
static char kaq_add_number(kaq_reading *reading, kaq_arguments *arguments) {
	int index = reading->numbers++;
	if (reading->by_engine) {
		kaq_add_output(reading, &arguments->number[index]);
		return 'l';
	}
	kaq_add_output(reading, &reading->number[index]);
	return 'z';
}

/* Adds one letter of a layout; returns the letter that the parser gets in its place, or NUL if it
 * is unknown. A handle is read as a value and checked afterwards, since later engines have objects
 * where earlier ones had resources. */
static char kaq_add_letter(kaq_reading *reading, kaq_arguments *arguments, char letter) {
	switch (letter) {
	case 's':
		kaq_add_output(reading, &arguments->text[reading->texts]);
		kaq_add_output(reading, &arguments->text_length[reading->texts++]);
		return 's';
	case 'l':
		return kaq_add_number(reading, arguments);
	case 'b':
		kaq_add_output(reading, &reading->flag);
		return 'b';
	case 'O':
		kaq_add_value(reading, arguments, letter);
		kaq_add_output(reading, nullptr);
		return 'O';
	case '+':
		kaq_add_value(reading, arguments, letter);
		kaq_add_output(reading, &reading->ignored_count);
		return '+';
	case 'r':
	case 'a':
	case 'o':
	case 'z':
		return kaq_add_value(reading, arguments, letter);
	case '|':
	case '!':
	case '/':
		return letter;
	default:
		return '\0';
	}
}

/* Where null for a scalar is deprecated, the parser would report it before the wrapped function
 * does, or even though that function accepts null. There null is allowed and read as the empty
 * value, except for a strict caller, for whom it never fits. */
static bool kaq_reads_nulls(void) {
	return KAQ_NULL_SCALARS_DEPRECATED && !kaq_caller_is_strict();
}

static bool kaq_add_null_mark(kaq_reading *reading, char letter, char next) {
	if (!kaq_reads_nulls() || next == '!' || (letter != 's' && letter != 'b')) {
		return false;
	}
	if (letter == 'b') {
		kaq_add_output(reading, &reading->flag);
	}
	return true;
}

static bool kaq_read_layout(kaq_reading *reading, kaq_arguments *arguments,
							const kaq_layout *layout) {
	if (layout->length > KAQ_LAYOUT_LENGTH) {
		return false;
	}
	char *out = reading->letters;
	for (size_t i = 0; i < layout->length; i++) {
		char next = layout->letters[i + 1];
		KAQ_REQUIRES(kaq_may_stand_before(layout->letters[i], next));
		char letter = kaq_add_letter(reading, arguments, layout->letters[i]);
		if (!letter) {
			return false;
		}
		*out++ = letter;
		if (kaq_add_null_mark(reading, letter, next)) {
			*out++ = '!';
		}
	}
	*out = '\0';
	return true;
}

static bool kaq_handles_fit(const kaq_reading *reading, const kaq_arguments *arguments) {
	for (int i = 0; i < reading->values; i++) {
		const zval *value = arguments->value[i];
		if (reading->is_handle[i] && value && Z_TYPE_P(value) != IS_RESOURCE &&
			!(KAQ_HANDLES_ARE_OBJECTS && Z_TYPE_P(value) == IS_OBJECT)) {
			return false;
		}
	}
	return true;
}

static bool kaq_read_double(double value, zend_long *number) {
	if (!zend_finite(value) || !ZEND_DOUBLE_FITS_LONG(value)) {
		return false;
	}
	*number = zend_dval_to_lval(value);
	return true;
}

static bool kaq_read_numeric_text(const zval *value, zend_long *number) {
	double fraction = 0;
	switch (is_numeric_string(Z_STRVAL_P(value), Z_STRLEN_P(value), number, &fraction,
							  KAQ_TRAILING_TEXT_FITS)) {
	case IS_LONG:
		return true;
	case IS_DOUBLE:
		return kaq_read_double(fraction, number);
	default:
		return false;
	}
}

/* Accepts what the engine's parser accepts as an integer. */
static bool kaq_read_number(const zval *value, zend_long *number) {
	if (Z_TYPE_P(value) == IS_LONG) {
		*number = Z_LVAL_P(value);
		return true;
	}
	if (kaq_caller_is_strict()) {
		return false;
	}
	switch (Z_TYPE_P(value)) {
	case IS_NULL:
	case IS_FALSE:
		*number = 0;
		return true;
	case IS_TRUE:
		*number = 1;
		return true;
	case IS_DOUBLE:
		return kaq_read_double(Z_DVAL_P(value), number);
	case IS_STRING:
		return kaq_read_numeric_text(value, number);
	default:
		return false;
	}
}

static bool kaq_read_numbers(const kaq_reading *reading, kaq_arguments *arguments) {
	for (int i = 0; i < reading->numbers && !reading->by_engine; i++) {
		const zval *value = reading->number[i];
		if (value && !kaq_read_number(value, &arguments->number[i])) {
			return false;
		}
	}
	return true;
}

static char kaq_empty_text[] = "";

/* A null that kaq_reads_nulls() has allowed for a string reads as "". */
static void kaq_fill_null_texts(const kaq_reading *reading, kaq_arguments *arguments,
								uint32_t count) {
	if (!kaq_reads_nulls()) {
		return;
	}
	uint32_t argument = 0;
	int text = 0;
	for (const char *letter = reading->letters; *letter && argument < count; letter++) {
		if (strchr("|!/", *letter)) {
			continue;
		}
		argument++;
		if (*letter == 's' && text < reading->texts && !arguments->text[text++]) {
			arguments->text[text - 1] = kaq_empty_text;
		}
	}
}

static bool kaq_try_layout(const kaq_layout *layout, uint32_t count, int flags,
						   kaq_arguments *arguments) {
	kaq_reading reading;
	memset(&reading, 0, sizeof(reading));
	memset(arguments, 0, sizeof(*arguments));
	reading.by_engine = flags != ZEND_PARSE_PARAMS_QUIET;
	if (!kaq_read_layout(&reading, arguments, layout)) {
		return false;
	}
	void **o = reading.output;
	static_assert(KAQ_MAX_OUTPUTS == 22, "the call below passes every output");
	int status = zend_parse_parameters_ex(
		flags, (int)count, reading.letters, o[0], o[1], o[2], o[3], o[4], o[5], o[6], o[7], o[8],
		o[9], o[10], o[11], o[12], o[13], o[14], o[15], o[16], o[17], o[18], o[19], o[20], o[21]);
	if (status != SUCCESS || !kaq_handles_fit(&reading, arguments) ||
		!kaq_read_numbers(&reading, arguments)) {
		return false;
	}
	kaq_fill_null_texts(&reading, arguments, count);
	return true;
}

/* Whether a layout is meant for a call with that many arguments. */
static bool kaq_applies(const kaq_layout *layout, uint32_t passed) {
	return layout->condition == '\0' || passed == layout->count ||
		   (layout->condition == '!' && passed > layout->count);
}

/* How many of the arguments the layout reads. */
static uint32_t kaq_given(const kaq_layout *layout, uint32_t passed) {
	return layout->condition ? layout->count : passed;
}

bool kaq_parse_arguments(const zend_execute_data *execute_data, const char *layouts, bool warn,
						 kaq_arguments *arguments) {
	uint32_t passed = ZEND_CALL_NUM_ARGS(execute_data);
	const char *rest = layouts;
	while (*rest) {
		const kaq_layout layout = kaq_take_layout(&rest);
		if (kaq_applies(&layout, passed) && kaq_try_layout(&layout, kaq_given(&layout, passed),
														   ZEND_PARSE_PARAMS_QUIET, arguments)) {
			return true;
		}
	}
	if (warn && !KAQ_PARSE_FAILURES_THROW && !kaq_caller_is_strict()) {
		const kaq_layout first = kaq_take_layout(&layouts);
		kaq_try_layout(&first, kaq_given(&first, passed), 0, arguments);
	}
	memset(arguments, 0, sizeof(*arguments));
	return false;
}
