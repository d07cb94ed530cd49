#include "json/json_escape.h"

#include <inttypes.h>
#include <memory>
#include <random>
#include <string.h>
#include <string>

#include <gtest/gtest.h>

namespace {

/* Both blocks have exactly the size that the contract names, so that a sanitizer sees an excess. */
std::string escaped(const std::string &text) {
	std::unique_ptr<char[]> in(new char[text.size()]);
	memcpy(in.get(), text.data(), text.size());
	std::unique_ptr<char[]> out(new char[KAQ_JSON_ESCAPE_MAX(text.size())]);
	size_t length = kaq_json_escape(out.get(), in.get(), text.size());
	EXPECT_LE(length, 6 * text.size());
	return std::string(out.get(), length);
}

std::string reference(const std::string &text) {
	std::string out;
	for (unsigned char c : text) {
		char six[8];
		switch (c) {
		case 8:
			out += "\\b";
			break;
		case 9:
			out += "\\t";
			break;
		case 10:
			out += "\\n";
			break;
		case 12:
			out += "\\f";
			break;
		case 13:
			out += "\\r";
			break;
		case '"':
		case '/':
		case '\\':
			out += '\\';
			out += (char)c;
			break;
		default:
			if (c < 0x20) {
				snprintf(six, sizeof six, "\\u%04x", c);
				out += six;
			} else {
				out += (char)c;
			}
		}
	}
	return out;
}

std::string u64(uint64_t value) {
	std::unique_ptr<char[]> out(new char[KAQ_FORMAT_U64_MAX]);
	return std::string(out.get(), kaq_format_u64(out.get(), value));
}

std::string i64(int64_t value) {
	std::unique_ptr<char[]> out(new char[KAQ_FORMAT_I64_MAX]);
	return std::string(out.get(), kaq_format_i64(out.get(), value));
}

} // namespace

TEST(JsonEscape, EmptyTextGivesNothing) {
	char out[KAQ_JSON_ESCAPE_MAX(0)];
	EXPECT_EQ(0u, kaq_json_escape(out, "", 0));
	EXPECT_EQ(0u, kaq_json_escape(out, nullptr, 0));
}

TEST(JsonEscape, ControlsWithLettersOfTheirOwn) {
	EXPECT_EQ("\\b", escaped("\x08"));
	EXPECT_EQ("\\t", escaped("\x09"));
	EXPECT_EQ("\\n", escaped("\x0a"));
	EXPECT_EQ("\\f", escaped("\x0c"));
	EXPECT_EQ("\\r", escaped("\x0d"));
}

TEST(JsonEscape, QuoteAndBackslash) {
	EXPECT_EQ("\\\"", escaped("\""));
	EXPECT_EQ("\\\\", escaped("\\"));
}

TEST(JsonEscape, SolidusIsAlwaysEscapedIsMeant) {
	EXPECT_EQ("\\/", escaped("/"));
	EXPECT_EQ("\\/var\\/www\\/\\/index.php", escaped("/var/www//index.php"));
}

TEST(JsonEscape, OtherControlsInLowercaseHex) {
	EXPECT_EQ("\\u0001", escaped("\x01"));
	EXPECT_EQ("\\u000b", escaped("\x0b"));
	EXPECT_EQ("\\u001b", escaped("\x1b"));
	EXPECT_EQ("\\u001f", escaped("\x1f"));
}

TEST(JsonEscape, BlankAndDeleteAreRaw) {
	EXPECT_EQ(" ", escaped(" "));
	EXPECT_EQ("\x7f", escaped("\x7f"));
}

TEST(JsonEscape, Utf8IsRaw) {
	EXPECT_EQ("caf\xc3\xa9", escaped("caf\xc3\xa9"));
}

TEST(JsonEscape, InvalidUtf8IsRawIsMeant) {
	EXPECT_EQ("\x80\xff\xc3", escaped("\x80\xff\xc3"));
}

TEST(JsonEscape, NulByteIsWrittenAsAnEscape) {
	EXPECT_EQ("a\\u0000b", escaped(std::string("a\0b", 3)));
}

TEST(JsonEscape, EveryByteAtEveryPlaceOfEveryLength) {
	for (size_t length = 1; length <= 40; length++) {
		for (size_t place = 0; place < length; place++) {
			for (int byte = 0; byte < 256; byte++) {
				std::string text(length, 'a');
				text[place] = (char)byte;
				ASSERT_EQ(reference(text), escaped(text))
					<< "length " << length << " place " << place << " byte " << byte;
			}
		}
	}
}

TEST(JsonEscape, TextsOfEscapesOnly) {
	for (size_t length = 0; length <= 70; length++) {
		ASSERT_EQ(reference(std::string(length, '/')), escaped(std::string(length, '/')));
		ASSERT_EQ(reference(std::string(length, '\x01')), escaped(std::string(length, '\x01')));
	}
}

TEST(JsonEscape, RandomTextsMatchTheReference) {
	std::mt19937 random(20260515);
	const std::string marks = "/\\\"\n\t\x01\x1f\x7f\xc3\xff";
	for (int round = 0; round < 20000; round++) {
		unsigned density = random() % 8;
		std::string text(random() % 100, 'x');
		for (char &c : text) {
			c = random() % 8 < density ? marks[random() % marks.size()]
									   : (char)('a' + random() % 26);
		}
		ASSERT_EQ(reference(text), escaped(text)) << "round " << round;
	}
}

TEST(JsonEscape, LongText) {
	std::string text;
	for (int i = 0; i < 20000; i++) {
		text += "/var/www/\xc3\xa9\x02 line\n";
	}
	EXPECT_TRUE(escaped(text) == reference(text));
}

/* Readable in steps of 8 bytes and not one byte more; what follows the NUL must not show. */
std::string escaped_in_words(const std::string &text, char behind) {
	size_t size = text.size();
	size_t readable = (size / 8 + 1) * 8;
	std::unique_ptr<char[]> in(new char[readable]);
	memset(in.get(), behind, readable);
	memcpy(in.get(), text.data(), size);
	in[size] = '\0';
	std::unique_ptr<char[]> out(new char[KAQ_JSON_ESCAPE_MAX(size)]);
	return std::string(out.get(), kaq_json_escape_words(out.get(), in.get()));
}

TEST(JsonEscapeWords, EveryByteAtEveryPlaceOfFiveSteps) {
	for (size_t size = 0; size <= 40; size++) {
		ASSERT_EQ(std::string(size, 'a'), escaped_in_words(std::string(size, 'a'), '"'));
		for (size_t place = 0; place < size; place++) {
			for (int byte = 1; byte < 256; byte++) {
				std::string text(size, 'a');
				text[place] = (char)byte;
				ASSERT_EQ(reference(text), escaped_in_words(text, 'b'));
			}
		}
	}
}

TEST(JsonEscapeWords, RandomTexts) {
	std::mt19937 random(11);
	for (int i = 0; i < 20000; i++) {
		std::string text(random() % 80, ' ');
		for (char &c : text) {
			c = (char)(random() % 2 != 0 ? 1 + random() % 255 : "\\/\"\x01x"[random() % 5]);
		}
		ASSERT_EQ(reference(text), escaped_in_words(text, '\0'));
	}
}

TEST(FormatU64, EdgesOfEveryDigitCount) {
	EXPECT_EQ("0", u64(0));
	for (uint64_t power = 1;; power *= 10) {
		for (uint64_t value : {power - 1, power, power + 1, power * 9}) {
			char text[32];
			snprintf(text, sizeof text, "%" PRIu64, value);
			ASSERT_EQ(text, u64(value));
		}
		if (power == UINT64_C(10000000000000000000)) {
			break;
		}
	}
	EXPECT_EQ("18446744073709551615", u64(UINT64_MAX));
}

TEST(FormatU64, RandomValues) {
	std::mt19937_64 random(7);
	for (int i = 0; i < 100000; i++) {
		uint64_t value = random() >> random() % 64;
		char text[32];
		snprintf(text, sizeof text, "%" PRIu64, value);
		ASSERT_EQ(text, u64(value));
	}
}

TEST(FormatI64, SignAndLimits) {
	EXPECT_EQ("0", i64(0));
	EXPECT_EQ("7", i64(7));
	EXPECT_EQ("-1", i64(-1));
	EXPECT_EQ("-10", i64(-10));
	EXPECT_EQ("9223372036854775807", i64(INT64_MAX));
	EXPECT_EQ("-9223372036854775808", i64(INT64_MIN));
}
