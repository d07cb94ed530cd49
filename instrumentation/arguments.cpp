#include "instrumentation/arguments.h"

#include <string.h>

#define KAQ_MAX_LETTERS 32
/* An argument takes up to three output pointers. */
#define KAQ_MAX_OUTPUTS 24

/* A layout as the engine's parser takes it, and where its outputs go. */
typedef struct {
	char letters[KAQ_MAX_LETTERS];
	void *output[KAQ_MAX_OUTPUTS];
	int outputs;
	int texts, numbers, values;
	bool is_handle[KAQ_MAX_ARGUMENTS];
	zend_bool flag; /* boolean arguments and "is null" marks, which nobody reads */
	int ignored_count;
} kaq_reading;

static void kaq_add_output(kaq_reading *reading, void *output) {
	reading->output[reading->outputs++] = output;
}

static void kaq_add_value(kaq_reading *reading, kaq_arguments *arguments, bool is_handle) {
	reading->is_handle[reading->values] = is_handle;
	kaq_add_output(reading, &arguments->value[reading->values++]);
}

/* Adds one letter of a layout; returns what the parser is to be given for it. A handle is read as a
 * value and checked afterwards, since later engines have objects where earlier ones had
 * resources. */
static char kaq_add_letter(kaq_reading *reading, kaq_arguments *arguments, char letter) {
	switch (letter) {
	case 's':
		kaq_add_output(reading, &arguments->text[reading->texts]);
		kaq_add_output(reading, &arguments->text_length[reading->texts++]);
		return 's';
	case 'l':
		kaq_add_output(reading, &arguments->number[reading->numbers++]);
		return 'l';
	case 'b':
		kaq_add_output(reading, &reading->flag);
		return 'b';
	case 'O':
		kaq_add_value(reading, arguments, false);
		kaq_add_output(reading, NULL);
		return 'O';
	case 'r':
		kaq_add_value(reading, arguments, true);
		return 'z';
	case '+':
		kaq_add_value(reading, arguments, false);
		kaq_add_output(reading, &reading->ignored_count);
		return '+';
	case 'a':
	case 'o':
	case 'z':
		kaq_add_value(reading, arguments, false);
		return letter;
	default:
		return letter;
	}
}

/* Where null for a scalar is deprecated the parser would say so before the wrapped function does,
 * or although that function takes null: there null is allowed and read as the empty value. */
static bool kaq_add_null_mark(kaq_reading *reading, char letter, char next) {
	if (!KAQ_NULL_SCALARS_DEPRECATED || next == '!' || !strchr("slb", letter)) {
		return false;
	}
	if (letter != 's') {
		kaq_add_output(reading, &reading->flag);
	}
	return true;
}

static void kaq_read_layout(kaq_reading *reading, kaq_arguments *arguments, const char *layout,
							size_t length) {
	char *out = reading->letters;
	for (size_t i = 0; i < length; i++) {
		*out++ = kaq_add_letter(reading, arguments, layout[i]);
		if (kaq_add_null_mark(reading, layout[i], i + 1 < length ? layout[i + 1] : '\0')) {
			*out++ = '!';
		}
	}
	*out = '\0';
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

static char KAQ_EMPTY_TEXT[] = "";

/* A null that was allowed for a string reads as "". */
static void kaq_fill_null_texts(const kaq_reading *reading, kaq_arguments *arguments,
								uint32_t count) {
	if (!KAQ_NULL_SCALARS_DEPRECATED) {
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
			arguments->text[text - 1] = KAQ_EMPTY_TEXT;
		}
	}
}

static int kaq_try_layout(const char *layout, size_t length, uint32_t count, int flags,
						  kaq_arguments *arguments) {
	kaq_reading reading;
	memset(&reading, 0, sizeof(reading));
	memset(arguments, 0, sizeof(*arguments));
	kaq_read_layout(&reading, arguments, layout, length);
	void **o = reading.output;
	int status =
		zend_parse_parameters_ex(flags, (int)count, reading.letters, o[0], o[1], o[2], o[3], o[4],
								 o[5], o[6], o[7], o[8], o[9], o[10], o[11], o[12], o[13], o[14],
								 o[15], o[16], o[17], o[18], o[19], o[20], o[21], o[22], o[23]);
	if (status != SUCCESS || !kaq_handles_fit(&reading, arguments)) {
		return 0;
	}
	kaq_fill_null_texts(&reading, arguments, count);
	return 1;
}

int kaq_parse_arguments(const zend_execute_data *execute_data, const char *layouts, int warn,
						kaq_arguments *arguments) {
	uint32_t passed = ZEND_CALL_NUM_ARGS(execute_data);
	int flags = warn && !KAQ_PARSE_FAILURES_THROW ? 0 : ZEND_PARSE_PARAMS_QUIET;
	while (*layouts) {
		size_t length = strcspn(layouts, ";");
		const char *layout = layouts;
		uint32_t count = passed;
		bool fits = true;
		if (length >= 2 && (layout[1] == ':' || layout[1] == '!')) {
			uint32_t wanted = (uint32_t)(layout[0] - '0');
			fits = layout[1] == ':' ? passed == wanted : passed >= wanted;
			count = wanted;
			layout += 2;
		}
		size_t letters = length - (size_t)(layout - layouts);
		if (fits && kaq_try_layout(layout, letters, count, flags, arguments)) {
			return 1;
		}
		flags = ZEND_PARSE_PARAMS_QUIET;
		layouts += length + (layouts[length] == ';');
	}
	memset(arguments, 0, sizeof(*arguments));
	return 0;
}
