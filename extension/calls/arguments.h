/*
 * Reading the arguments of a wrapped call with the engine's own parser, by layout.
 *
 * A layout is a format string of the engine's argument parser ("Os|l"). Several are separated
 * by ";" and tried in order; "2:sa" is tried only with two arguments, "1!s" reads the first
 * argument whatever follows, and needs one.
 */
#pragma once

#include "util/engine_compat.h"

/* The longest layout, its condition not counted. Each letter takes at most one place in each array
 * below and two outputs of the parser. */
#define KAQ_LAYOUT_LENGTH 11

/* What a layout has read, by kind and in order. Strings and values that were not passed are null,
 * numbers 0. The texts and values belong to the call's arguments. */
struct kaq_arguments {
	char *text[KAQ_LAYOUT_LENGTH];
	size_t text_length[KAQ_LAYOUT_LENGTH];
	zend_long number[KAQ_LAYOUT_LENGTH];
	zval *value[KAQ_LAYOUT_LENGTH];
};

/* One layout of a list. */
struct kaq_layout {
	const char *letters;
	size_t length;
	char condition; /* ':' exactly `count` arguments, '!' at least that many, '\0' none */
	uint32_t count;
};

/* Whether a text begins with a condition, as "2:" and "1!" are. */
constexpr bool kaq_is_condition(const char *text) {
	return text[0] >= '0' && text[0] <= '9' && (text[1] == ':' || text[1] == '!');
}

/* Takes the first layout off a list. */
constexpr kaq_layout kaq_take_layout(const char **layouts) {
	kaq_layout layout = {*layouts, 0, '\0', 0};
	if (kaq_is_condition(layout.letters)) {
		layout.count = (uint32_t)(layout.letters[0] - '0');
		layout.condition = layout.letters[1];
		layout.letters += 2;
	}
	while (layout.letters[layout.length] && layout.letters[layout.length] != ';') {
		layout.length++;
	}
	*layouts = layout.letters + layout.length + (layout.letters[layout.length] == ';');
	return layout;
}

/* Whether `next` may follow `letter`: not in "l!" and "b!", which need a parser output that has no
 * place here. */
constexpr bool kaq_may_stand_before(char letter, char next) {
	return next != '!' || (letter != 'l' && letter != 'b');
}

constexpr bool kaq_is_known_letter(char letter) {
	for (const char *known = "slbOraoz+|!/"; *known; known++) {
		if (*known == letter) {
			return true;
		}
	}
	return false;
}

constexpr bool kaq_is_readable(const kaq_layout *layout) {
	for (size_t i = 0; i < layout->length; i++) {
		if (!kaq_is_known_letter(layout->letters[i]) ||
			!kaq_may_stand_before(layout->letters[i], layout->letters[i + 1])) {
			return false;
		}
	}
	return layout->length <= KAQ_LAYOUT_LENGTH;
}

/* Whether every layout of a list can be read; for static_assert. */
constexpr bool kaq_are_readable(const char *layouts) {
	while (*layouts) {
		const kaq_layout layout = kaq_take_layout(&layouts);
		if (!kaq_is_readable(&layout)) {
			return false;
		}
	}
	return true;
}

/* Tries the layouts in order. One that is too long or has an unknown letter never fits. If none
 * fits and `warn` is set, the engine reports once why the first one does not, provided that such a
 * report is a warning and not an exception. Returns whether one fitted; if not, everything reads as
 * not passed. REQUIRES: the wrapped function is the running frame; the layouts can be read. */
bool kaq_parse_arguments(const zend_execute_data *execute_data, const char *layouts, bool warn,
						 kaq_arguments *arguments);
