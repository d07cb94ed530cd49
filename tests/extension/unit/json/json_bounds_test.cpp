#include "json/json_bounds.h"

#include <memory>
#include <string.h>
#include <string>

#include <gtest/gtest.h>

namespace {

const kaq_json_bounds NONE = {(size_t)-1, (size_t)-1, (size_t)-1, (size_t)-1, (size_t)-1};

/* The block has exactly the text's size, so that a sanitizer sees a read beyond it. */
bool is_within(const std::string &text, const kaq_json_bounds &bounds = KAQ_DECODE_BOUNDS) {
	std::unique_ptr<char[]> block(new char[text.size()]);
	memcpy(block.get(), text.data(), text.size());
	return kaq_json_is_within(block.get(), text.size(), &bounds);
}

std::string repeated(const std::string &piece, size_t times) {
	std::string text;
	text.reserve(piece.size() * times);
	for (size_t i = 0; i < times; i++) {
		text += piece;
	}
	return text;
}

/* The least value of one bound that lets the text pass. */
size_t least(const std::string &text, size_t kaq_json_bounds::*bound) {
	kaq_json_bounds bounds = NONE;
	for (bounds.*bound = 0; !is_within(text, bounds); (bounds.*bound)++) {
		if (bounds.*bound > text.size() + 10) {
			ADD_FAILURE() << "nothing lets pass: " << text;
			break;
		}
	}
	return bounds.*bound;
}

size_t depth(const std::string &text) {
	return least(text, &kaq_json_bounds::depth);
}

size_t values(const std::string &text) {
	return least(text, &kaq_json_bounds::values);
}

size_t frame(const std::string &text) {
	return least(text, &kaq_json_bounds::frame);
}

size_t escapes(const std::string &text) {
	return least(text, &kaq_json_bounds::escapes);
}

std::string list_of(const std::string &element, size_t count) {
	return "[" + element + repeated("," + element, count - 1) + "]";
}

std::string nested(size_t levels) {
	return repeated("[", levels) + repeated("]", levels);
}

std::string text_value(const std::string &content) {
	return "{\"a\":\"" + content + "\"}";
}

} // namespace

TEST(JsonBounds, WhatACollectorSendsIsWithin) {
	EXPECT_TRUE(is_within("{\"instance.id\":\"i-1\",\"instance.status\":920,\"app.id\":\"shop\","
						  "\"normalised.txn.name\":\"GET \\/cart\\/{id}\","
						  "\"transaction.trace.sql.stacktrace.threshold\":0.25,"
						  "\"webtransaction.rum.snippet\":\"<script>\\n<\\/script>\","
						  "\"unknown\":{\"deep\":[1,[2],{\"a\":null}]}}"));
	EXPECT_TRUE(is_within(""));
	EXPECT_TRUE(is_within(" \n{}\r\n"));
}

TEST(JsonBounds, DepthIsThatOfListsAndObjects) {
	EXPECT_EQ(0u, depth("7"));
	EXPECT_EQ(1u, depth("[]"));
	EXPECT_EQ(1u, depth("[1,2,3]"));
	EXPECT_EQ(2u, depth("[[],[],[],{}]"));
	EXPECT_EQ(2u, depth("{\"a\":{\"b\":1},\"c\":[1]}"));
	EXPECT_EQ(4u, depth("[{\"a\":[{}]},[]]"));
	EXPECT_EQ(100u, depth(nested(100)));
}

TEST(JsonBounds, EveryValueAndEveryKeyCounts) {
	EXPECT_EQ(1u, values("true"));
	EXPECT_EQ(1u, values("\"a,b:c\""));
	EXPECT_EQ(2u, values("[7]"));
	EXPECT_EQ(4u, values("[1,2,3]"));
	EXPECT_EQ(3u, values("{\"a\":1}"));
	EXPECT_EQ(7u, values("{\"a\":1,\"b\":2,\"a\":3}"));
	EXPECT_EQ(6u, values("[[1],[\"2\",true]]"));
	EXPECT_EQ(1001u, values(list_of("null", 1000)));
}

TEST(JsonBounds, EmptyListOrObjectCountsTwice) {
	EXPECT_EQ(2u, values("[]"));
	EXPECT_EQ(2u, values("{}"));
	EXPECT_EQ(7u, values("[[],{},[]]"));
}

TEST(JsonBounds, FrameIsAllThatIsNoContentOfAStringValue) {
	EXPECT_EQ(2u, frame("[]"));
	EXPECT_EQ(8u, frame(" [12,3] "));
	EXPECT_EQ(2u, frame("\"a long text\""));
	EXPECT_EQ(4u, frame("[\"a long text\"]"));
	EXPECT_EQ(2u, frame("\"\\\"\\\\\\u0041\""));
	EXPECT_EQ(1000u, frame(std::string(1000, ' ')));
	EXPECT_EQ(1000u, frame(std::string(1000, '7')));
}

TEST(JsonBounds, KeysBelongToTheFrame) {
	EXPECT_EQ(strlen("{\"the key\":\"\"}"), frame("{\"the key\":\"and its value\"}"));
	EXPECT_EQ(strlen("{\"the key\" : \"\"}"), frame("{\"the key\" : \"and its value\"}"));
	EXPECT_EQ(strlen("{\"a\\\"b\":\"\",\"c\":1}"), frame("{\"a\\\"b\":\"text\",\"c\":1}"));
}

TEST(JsonBounds, EveryEscapeCountsOnce) {
	EXPECT_EQ(0u, escapes("{\"a\":\"plain\"}"));
	EXPECT_EQ(8u, escapes("\"\\b\\f\\n\\r\\t\\\"\\\\\\/\""));
	EXPECT_EQ(3u, escapes("[\"\\u00e9\",\"\\ud83d\\ude00\"]"));
	EXPECT_EQ(2u, escapes("\"\\\\\\\\\""));
	EXPECT_EQ(2u, escapes("{\"a\\n\":\"\\t\"}"));
}

TEST(JsonBounds, PunctuationInStringsIsText) {
	const std::string all = "[{,:,}][[{{,,::";
	EXPECT_EQ(1u, depth(text_value(all)));
	EXPECT_EQ(3u, values(text_value(all)));
	EXPECT_EQ(8u, frame(text_value(all)));
	EXPECT_EQ(2u, depth("{\"" + all + "\":[]}"));
}

TEST(JsonBounds, StringEndsAtItsFirstQuoteThatIsNotEscaped) {
	for (size_t backslashes = 0; backslashes <= 20; backslashes++) {
		std::string text = "[\"" + std::string(backslashes, '\\') + "\"[[[\"";
		EXPECT_EQ(backslashes % 2 ? 1u : 4u, depth(text)) << text;
		EXPECT_EQ((backslashes + 1) / 2, escapes(text)) << text;
	}
}

/* Each bound of the texts that are decoded, met and passed by one. */

TEST(DecodeBounds, Length) {
	size_t around = text_value("").size();
	EXPECT_TRUE(is_within(text_value(std::string(KAQ_DECODE_MAX_LENGTH - around, 'x'))));
	EXPECT_FALSE(is_within(text_value(std::string(KAQ_DECODE_MAX_LENGTH - around + 1, 'x'))));
}

TEST(DecodeBounds, Depth) {
	EXPECT_TRUE(is_within(nested(KAQ_DECODE_MAX_DEPTH)));
	EXPECT_FALSE(is_within(nested(KAQ_DECODE_MAX_DEPTH + 1)));
	EXPECT_FALSE(is_within("[1,[2]," + nested(KAQ_DECODE_MAX_DEPTH) + "]"));
}

TEST(DecodeBounds, Values) {
	EXPECT_TRUE(is_within(list_of("1", KAQ_DECODE_MAX_VALUES - 1)));
	EXPECT_FALSE(is_within(list_of("1", KAQ_DECODE_MAX_VALUES)));
	EXPECT_FALSE(is_within(list_of("[]", KAQ_DECODE_MAX_VALUES / 2)));
	size_t members = (KAQ_DECODE_MAX_VALUES - 1) / 2;
	EXPECT_TRUE(is_within("{\"k\":1" + repeated(",\"k\":1", members - 1) + "}"));
	EXPECT_FALSE(is_within("{\"k\":1" + repeated(",\"k\":1", members) + "}"));
}

TEST(DecodeBounds, Frame) {
	EXPECT_TRUE(is_within(std::string(KAQ_DECODE_MAX_FRAME, '7')));
	EXPECT_FALSE(is_within(std::string(KAQ_DECODE_MAX_FRAME + 1, '7')));
	EXPECT_FALSE(is_within("{\"" + std::string(KAQ_DECODE_MAX_FRAME, 'k') + "\":1}"));
	EXPECT_FALSE(is_within("{" + std::string(KAQ_DECODE_MAX_FRAME, '\n') + "}"));
}

TEST(DecodeBounds, Escapes) {
	EXPECT_TRUE(is_within(text_value(repeated("\\n", KAQ_DECODE_MAX_ESCAPES))));
	EXPECT_FALSE(is_within(text_value(repeated("\\n", KAQ_DECODE_MAX_ESCAPES + 1))));
}

TEST(DecodeBounds, TextOfSeveralMegabytesIsWithin) {
	EXPECT_TRUE(is_within(text_value(std::string(5000000, 'x'))));
	EXPECT_TRUE(is_within(text_value(repeated("caf\xc3\xa9 \xe2\x82\xac ", 400000))));
	EXPECT_TRUE(
		is_within(text_value(repeated("var a = \\\"x\\\"; // a line of a script\\n", 60000))));
}

/* No JSON: what the decoder meets before its first mistake is within, or the text is not. */

TEST(DecodeBounds, UnclosedTexts) {
	EXPECT_FALSE(is_within(std::string(1000000, '[')));
	EXPECT_FALSE(is_within(repeated("{\"a\":", 1000)));
	EXPECT_FALSE(is_within(repeated("[1,", KAQ_DECODE_MAX_VALUES)));
	EXPECT_FALSE(is_within("{\"a\":\"" + repeated("\\n", KAQ_DECODE_MAX_ESCAPES + 1)));
	EXPECT_TRUE(is_within("[\"never closed"));
	EXPECT_TRUE(is_within("\""));
	EXPECT_TRUE(is_within("\"\\"));
}

TEST(DecodeBounds, ClosingWhatIsNotOpenMakesNoRoom) {
	EXPECT_FALSE(is_within(std::string(1000, ']') + std::string(KAQ_DECODE_MAX_DEPTH + 1, '[')));
	EXPECT_FALSE(is_within("]" + nested(KAQ_DECODE_MAX_DEPTH + 1)));
}
