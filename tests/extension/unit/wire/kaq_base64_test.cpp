#include "wire/kaq_base64.h"

#include <memory>
#include <random>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <string>

#include <gtest/gtest.h>

/* Lets an allocation that is too large fail as it does without a sanitizer. */
extern "C" const char *__asan_default_options() {
	return "allocator_may_return_null=1";
}

namespace {

const char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/* Bit by bit, as the definition reads. */
std::string reference(const std::string &bytes) {
	std::string out;
	unsigned bits = 0;
	int count = 0;
	for (unsigned char byte : bytes) {
		bits = bits << 8 | byte;
		count += 8;
		while (count >= 6) {
			out += ALPHABET[bits >> (count - 6) & 63];
			count -= 6;
		}
	}
	if (count > 0) {
		out += ALPHABET[bits << (6 - count) & 63];
	}
	while (out.size() % 4 != 0) {
		out += '=';
	}
	return out;
}

std::string encoded(const std::string &bytes) {
	char *out = kaq_base64_encode_with_newline(bytes.data(), bytes.size());
	std::string text = out == nullptr ? "(null)" : out;
	free(out);
	return text;
}

typedef size_t (*loop_fn)(char *, const unsigned char *, size_t);

/* Blocks of exactly the sizes of the contract. */
std::string encoded_by(loop_fn loop, const std::string &bytes) {
	std::unique_ptr<unsigned char[]> in(new unsigned char[bytes.size()]);
	memcpy(in.get(), bytes.data(), bytes.size());
	size_t size = (bytes.size() + 2) / 3 * 4;
	std::unique_ptr<char[]> out(new char[size]);
	EXPECT_EQ(size, loop(out.get(), in.get(), bytes.size()));
	return std::string(out.get(), size);
}

void expect_loop_matches(loop_fn loop) {
	std::mt19937 random(4711);
	for (size_t length = 0; length <= 300; length++) {
		for (int round = 0; round < 20; round++) {
			std::string bytes(length, 0);
			for (char &c : bytes) {
				c = (char)random();
			}
			ASSERT_EQ(reference(bytes), encoded_by(loop, bytes)) << "length " << length;
		}
	}
	for (size_t length : {65535, 65536, 1000000, 1000001}) {
		std::string bytes(length, 0);
		for (char &c : bytes) {
			c = (char)random();
		}
		ASSERT_TRUE(reference(bytes) == encoded_by(loop, bytes)) << "length " << length;
	}
}

/* Every 24-bit value once: each character at each place of a group. */
void expect_all_groups(loop_fn loop) {
	std::string bytes;
	bytes.reserve(3 * 65536);
	for (unsigned high = 0; high < 256; high++) {
		bytes.clear();
		for (unsigned low = 0; low < 65536; low++) {
			bytes += (char)high;
			bytes += (char)(low >> 8);
			bytes += (char)low;
		}
		ASSERT_TRUE(reference(bytes) == encoded_by(loop, bytes)) << "first byte " << high;
	}
}

/* Decodes and takes `length` bytes; "(null)" for null. */
std::string decoded(const std::string &text, size_t length) {
	std::unique_ptr<unsigned char[]> in(new unsigned char[text.size()]);
	memcpy(in.get(), text.data(), text.size());
	unsigned char *out = kaq_base64_decode(in.get(), text.size());
	std::string bytes = out == nullptr ? "(null)" : std::string((char *)out, length);
	free(out);
	return bytes;
}

} // namespace

TEST(Base64Encode, EmptyInputGivesJustTheLineFeed) {
	EXPECT_EQ("\n", encoded(""));
	char *out = kaq_base64_encode_with_newline(nullptr, 0);
	EXPECT_STREQ("\n", out);
	free(out);
}

TEST(Base64Encode, OneAndTwoBytesArePadded) {
	EXPECT_EQ("YQ==\n", encoded("a"));
	EXPECT_EQ("YWI=\n", encoded("ab"));
}

TEST(Base64Encode, FullGroupsHaveNoPadding) {
	EXPECT_EQ("YWJj\n", encoded("abc"));
	EXPECT_EQ("Zm9vYmFy\n", encoded("foobar"));
}

TEST(Base64Encode, AlphabetInOrder) {
	std::string bytes;
	for (unsigned i = 0; i < 64; i += 4) {
		unsigned group = i << 18 | (i + 1) << 12 | (i + 2) << 6 | (i + 3);
		bytes += (char)(group >> 16);
		bytes += (char)(group >> 8);
		bytes += (char)group;
	}
	EXPECT_EQ(std::string(ALPHABET) + "\n", encoded(bytes));
}

TEST(Base64Encode, OnlyNewlineIsTheLastByteWhateverTheLength) {
	std::string text = encoded(std::string(100000, '\xfb'));
	EXPECT_EQ(text.size() - 1, text.find('\n'));
}

TEST(Base64Encode, AllLengthsMatchTheReference) {
	std::mt19937 random(99);
	for (size_t length = 0; length <= 300; length++) {
		std::string bytes(length, 0);
		for (char &c : bytes) {
			c = (char)random();
		}
		ASSERT_EQ(reference(bytes) + "\n", encoded(bytes)) << "length " << length;
	}
}

TEST(Base64Encode, SizeBeyondTheAddressSpaceGivesNull) {
	EXPECT_EQ(nullptr, kaq_base64_encode_with_newline("", SIZE_MAX));
	EXPECT_EQ(nullptr, kaq_base64_encode_with_newline("", SIZE_MAX / 2));
	EXPECT_EQ(nullptr, kaq_base64_encode_with_newline("", SIZE_MAX / 4 + 1));
}

TEST(Base64Encode, FailedAllocationGivesNull) {
	EXPECT_EQ(nullptr, kaq_base64_encode_with_newline("", SIZE_MAX / 8));
}

TEST(Base64Loops, ScalarMatchesTheReference) {
	expect_loop_matches(kaq_base64_encode_scalar);
	expect_all_groups(kaq_base64_encode_scalar);
}

TEST(Base64Loops, Avx2MatchesTheReference) {
	if (!kaq_base64_has_avx2()) {
		GTEST_SKIP() << "this processor has no AVX2";
	}
	expect_loop_matches(kaq_base64_encode_avx2);
	expect_all_groups(kaq_base64_encode_avx2);
}

TEST(Base64Decode, EmptyInputGivesNull) {
	EXPECT_EQ("(null)", decoded("", 0));
	EXPECT_EQ(nullptr, kaq_base64_decode(nullptr, 0));
}

TEST(Base64Decode, NoValidCharacterGivesNull) {
	EXPECT_EQ("(null)", decoded("\n\r -_*", 0));
}

TEST(Base64Decode, CountThatIsNoMultipleOfFourGivesNull) {
	EXPECT_EQ("(null)", decoded("YWJ", 0));
	EXPECT_EQ("(null)", decoded("YWJjZ", 0));
	EXPECT_EQ("(null)", decoded("YWI=YQ=", 0));
}

TEST(Base64Decode, FullGroups) {
	EXPECT_EQ("abc", decoded("YWJj", 3));
	EXPECT_EQ("foobar", decoded("Zm9vYmFy", 6));
}

TEST(Base64Decode, PadsDropOneOrTwoBytes) {
	EXPECT_EQ(std::string("ab\0", 3), decoded("YWI=", 3));
	EXPECT_EQ(std::string("a\0\0", 3), decoded("YQ==", 3));
}

TEST(Base64Decode, InvalidBytesAreSkipped) {
	EXPECT_EQ("abc", decoded("Y\nW*J\xff\x01j\n", 3));
	EXPECT_EQ("foobar", decoded(std::string("Zm9v\0YmFy", 9), 6));
}

TEST(Base64Decode, StopsBehindTheFirstPaddedGroup) {
	EXPECT_EQ(std::string("ab\0\0\0\0", 6), decoded("YWI=Zm9v", 6));
}

TEST(Base64Decode, PadsBehindThatGroupDoNotCount) {
	EXPECT_EQ(std::string("ab\0", 3), decoded("YWI=====", 3));
}

TEST(Base64Decode, PadAnywhereInTheGroupCountsIsMeant) {
	EXPECT_EQ(std::string("\x01\x60\0", 3), decoded("=WBj", 3));
}

TEST(Base64Decode, MoreThanTwoPadsGiveNull) {
	EXPECT_EQ("(null)", decoded("Y===", 0));
	EXPECT_EQ("(null)", decoded("====", 0));
	EXPECT_EQ("(null)", decoded("Zm9vY===", 0));
}

TEST(Base64Decode, DecodesWhatTheEncoderWrites) {
	std::mt19937 random(3);
	for (size_t length = 1; length <= 200; length++) {
		std::string bytes(length, 0);
		for (char &c : bytes) {
			c = (char)random();
		}
		ASSERT_EQ(bytes, decoded(encoded(bytes), length));
	}
}
