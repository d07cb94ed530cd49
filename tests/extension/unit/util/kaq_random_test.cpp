#include "util/kaq_random.h"

#include <errno.h>
#include <fcntl.h>
#include <memory>
#include <set>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/random.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

/* How often the system's own getrandom is called: the program is linked with --wrap for it. */
static int getrandom_calls;

extern "C" {
ssize_t __real_getrandom(void *bytes, size_t n, unsigned flags);

ssize_t __wrap_getrandom(void *bytes, size_t n, unsigned flags) {
	getrandom_calls++;
	return __real_getrandom(bytes, n, flags);
}
}

namespace {

/* A device with known bytes. */
struct Device {
	char path[64] = "/tmp/kaq_random_XXXXXX";

	explicit Device(const std::string &bytes) {
		int fd = mkstemp(path);
		EXPECT_EQ((ssize_t)bytes.size(), write(fd, bytes.data(), bytes.size()));
		close(fd);
	}
	~Device() {
		unlink(path);
	}
};

const char ABSENT[] = "/tmp/kaq_random_absent/device";

std::string hex_from(const char *device, int64_t length, kaq_getrandom_fn system = nullptr) {
	/* Exactly the room of the contract, so that a sanitizer sees an excess. */
	std::unique_ptr<char[]> buffer(new char[(size_t)length + 1]);
	memset(buffer.get(), 'X', (size_t)length + 1);
	kaq_random_hex_from(system, device, length, buffer.get());
	EXPECT_EQ((size_t)length, strnlen(buffer.get(), (size_t)length + 1));
	return buffer.get();
}

/* Stand-ins for getrandom: what each hands out, and how it was called. */
struct {
	int calls;
	size_t asked;
	unsigned flags;
	int failure;
} system_calls;

ssize_t system_that_serves(void *bytes, size_t n, unsigned flags) {
	system_calls.calls++;
	system_calls.asked = n;
	system_calls.flags = flags;
	memset(bytes, 0xab, n);
	return (ssize_t)n;
}

ssize_t system_that_fails(void *, size_t, unsigned) {
	system_calls.calls++;
	errno = system_calls.failure;
	return -1;
}

ssize_t system_that_is_exhausted(void *, size_t, unsigned) {
	system_calls.calls++;
	return 0;
}

/* Three bytes at a time, and a signal before each third call. */
ssize_t system_that_is_interrupted(void *bytes, size_t n, unsigned) {
	if (++system_calls.calls % 3 == 0) {
		errno = EINTR;
		return -1;
	}
	size_t part = n < 3 ? n : 3;
	memset(bytes, 0x10 + system_calls.calls, part);
	return (ssize_t)part;
}

bool is_lowercase_hex(const std::string &text) {
	return text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

int lowest_free_descriptor() {
	return open("/dev/null", O_RDONLY);
}

} // namespace

TEST(RandomHex, DigitsAreHighNibbleThenLowNibble) {
	Device device("\x01\x23\x45\x67\x89\xab\xcd\xef");
	EXPECT_EQ("0123456789abcdef", hex_from(device.path, 16));
}

TEST(RandomHex, EveryByteAtEveryPlaceGivesItsTwoDigits) {
	for (int first = 0; first < 18; first++) {
		std::string bytes;
		std::string expected;
		int value = first % 2 * 128 + first / 2;
		for (int i = 0; i < 128 + first / 2; i++, value++) {
			char digits[3];
			bytes += (char)value;
			snprintf(digits, sizeof digits, "%02x", (unsigned)(unsigned char)value);
			expected += digits;
		}
		Device device(bytes);
		EXPECT_EQ(expected, hex_from(device.path, (int64_t)expected.size()));
	}
}

TEST(RandomHex, LongTextIsExpandedFromThirtyTwoBytes) {
	std::string seed;
	for (int i = 0; i < 32; i++) {
		seed += (char)(i + 1);
	}
	Device device(seed);
	int64_t longest = 2 * KAQ_RANDOM_MOST_BYTES;
	std::string text = hex_from(device.path, longest + 16);
	EXPECT_TRUE(is_lowercase_hex(text));
	/* s[0] + s[3] rotated by 23, and s[0] added; the lowest byte comes first. */
	EXPECT_EQ("1315171113151719", text.substr(0, 16));
	EXPECT_EQ(text, hex_from(device.path, longest + 16)) << "of nothing but these bytes";
	std::set<std::string> ids;
	for (size_t at = 0; at < text.size(); at += 16) {
		ids.insert(text.substr(at, 16));
	}
	EXPECT_EQ(text.size() / 16, ids.size());
}

TEST(RandomExpand, SequenceOfFourSmallNumbers) {
	const uint64_t seed[4] = {1, 2, 3, 4};
	uint64_t values[5];
	kaq_random_expand(seed, (unsigned char *)values, sizeof values);
	/* Of the sequence's authors' own program. */
	EXPECT_EQ(41943041u, values[0]);
	EXPECT_EQ(58720359u, values[1]);
	EXPECT_EQ(3588806011781223u, values[2]);
	EXPECT_EQ(3591011842654386u, values[3]);
	EXPECT_EQ(9228616714210784205u, values[4]);
}

TEST(RandomExpand, OnlyTheBytesAskedForAreWritten) {
	const uint64_t seed[4] = {1, 2, 3, 4};
	unsigned char whole[16];
	kaq_random_expand(seed, whole, 16);
	for (size_t n = 1; n <= 16; n++) {
		std::vector<unsigned char> bytes(n);
		kaq_random_expand(seed, bytes.data(), n);
		EXPECT_EQ(0, memcmp(whole, bytes.data(), n));
	}
}

TEST(RandomExpand, ZerosAreReplaced) {
	const uint64_t zeros[4] = {};
	const uint64_t one[4] = {1};
	unsigned char from_zeros[64];
	unsigned char from_one[64];
	kaq_random_expand(zeros, from_zeros, sizeof from_zeros);
	kaq_random_expand(one, from_one, sizeof from_one);
	EXPECT_EQ(0, memcmp(from_one, from_zeros, sizeof from_one));
}

TEST(RandomHex, OddLengthEndsWithAHighNibble) {
	Device device("\x9f\xe8\xff");
	EXPECT_EQ("9", hex_from(device.path, 1));
	EXPECT_EQ("9fe", hex_from(device.path, 3));
	EXPECT_EQ("9fe8f", hex_from(device.path, 5));
}

TEST(RandomHex, StackAndHeapSizesAgree) {
	std::string bytes;
	for (int i = 0; i < KAQ_RANDOM_MOST_BYTES; i++) {
		bytes += (char)(i * 37);
	}
	Device device(bytes);
	int64_t longest = 2 * KAQ_RANDOM_MOST_BYTES;
	std::string all = hex_from(device.path, longest);
	for (int64_t length : {(int64_t)127, (int64_t)128, (int64_t)129, (int64_t)130, (int64_t)131,
						   longest - 1, longest}) {
		EXPECT_EQ(all.substr(0, (size_t)length), hex_from(device.path, length));
	}
}

TEST(RandomHex, EveryLengthIsExactAndLowercaseHex) {
	for (int64_t length = 1; length <= 200; length++) {
		std::string text = hex_from("/dev/urandom", length);
		EXPECT_TRUE(is_lowercase_hex(text)) << text;
	}
}

TEST(RandomHex, AllDigitsOccurAtAllPlaces) {
	std::vector<std::set<char>> seen(32);
	for (int i = 0; i < 1000; i++) {
		std::string text = hex_from("/dev/urandom", 32);
		for (size_t place = 0; place < 32; place++) {
			seen[place].insert(text[place]);
		}
	}
	for (const std::set<char> &digits : seen) {
		EXPECT_EQ(16u, digits.size());
	}
}

TEST(RandomHex, IdentifiersDiffer) {
	std::set<std::string> seen;
	for (int i = 0; i < 1000; i++) {
		char buffer[17];
		kaq_random_hex(16, buffer);
		seen.insert(buffer);
	}
	EXPECT_EQ(1000u, seen.size());
}

TEST(RandomHex, TenThousandIdentifiersInOneCall) {
	std::string text = hex_from("/dev/urandom", 160000);
	EXPECT_TRUE(is_lowercase_hex(text));
	std::set<std::string> pieces;
	for (size_t i = 0; i < text.size(); i += 16) {
		pieces.insert(text.substr(i, 16));
	}
	EXPECT_EQ(10000u, pieces.size());
}

TEST(RandomHex, SystemIsAskedOnceAndTheDeviceNot) {
	for (int64_t length : {1, 16, 32, 33, 2 * KAQ_RANDOM_MOST_BYTES}) {
		system_calls = {};
		std::string text = hex_from(ABSENT, length, system_that_serves);
		EXPECT_EQ(1, system_calls.calls);
		EXPECT_EQ((size_t)(length + 1) / 2, system_calls.asked);
		for (int64_t i = 0; i < length; i++) {
			ASSERT_EQ("ab"[i % 2], text[(size_t)i]) << i;
		}
	}
}

TEST(RandomHex, SystemIsAskedForASeedOnlyWhereManyAreWanted) {
	system_calls = {};
	hex_from(ABSENT, 2 * KAQ_RANDOM_MOST_BYTES + 1, system_that_serves);
	EXPECT_EQ(1, system_calls.calls);
	EXPECT_EQ(32u, system_calls.asked);
}

TEST(RandomHex, SystemIsAskedForNoMoreThanTheIdsOf32Spans) {
	for (int64_t spans : {32, 33, 500, 100000}) {
		system_calls = {};
		hex_from(ABSENT, spans * 16, system_that_serves);
		EXPECT_EQ(1, system_calls.calls);
		EXPECT_EQ(spans == 32 ? 256u : 32u, system_calls.asked);
	}
}

TEST(RandomHex, IdentifiersComeFromTheSystem) {
	char buffer[33];
	getrandom_calls = 0;
	kaq_random_hex(32, buffer);
	EXPECT_EQ(1, getrandom_calls);
	kaq_random_hex_logic(16, buffer);
	EXPECT_EQ(2, getrandom_calls);
}

TEST(RandomHex, SystemIsNotWaitedFor) {
	system_calls = {};
	hex_from(ABSENT, 16, system_that_serves);
	EXPECT_EQ((unsigned)GRND_NONBLOCK, system_calls.flags);
}

TEST(RandomHex, DeviceServesWhereTheSystemDoesNot) {
	Device device("\x01\x23\x45\x67\x89\xab\xcd\xef");
	for (int failure : {ENOSYS, EPERM, EAGAIN}) {
		system_calls = {};
		system_calls.failure = failure;
		EXPECT_EQ("0123456789abcdef", hex_from(device.path, 16, system_that_fails));
		EXPECT_EQ(1, system_calls.calls);
	}
	system_calls = {};
	EXPECT_EQ("0123456789abcdef", hex_from(device.path, 16, system_that_is_exhausted));
	EXPECT_EQ(1, system_calls.calls);
}

TEST(RandomHex, SystemThatIsInterruptedIsAskedForTheRest) {
	system_calls = {};
	EXPECT_EQ("111111121212141414151515", hex_from(ABSENT, 24, system_that_is_interrupted));
}

TEST(RandomHex, WithoutSystemAndDeviceFallsBack) {
	system_calls = {};
	system_calls.failure = ENOSYS;
	EXPECT_TRUE(is_lowercase_hex(hex_from(ABSENT, 32, system_that_fails)));
	EXPECT_NE(hex_from(ABSENT, 32, system_that_fails), hex_from(ABSENT, 32, system_that_fails));
}

TEST(RandomHex, MissingDeviceFallsBack) {
	for (int64_t length : {1, 16, 32, 33, 160000}) {
		EXPECT_TRUE(is_lowercase_hex(hex_from(ABSENT, length)));
	}
	EXPECT_NE(hex_from(ABSENT, 32), hex_from(ABSENT, 32));
}

TEST(RandomHex, ShortReadReplacesAllBytes) {
	Device device(std::string(15, '\xaa'));
	EXPECT_NE(std::string(30, 'a'), hex_from(device.path, 32).substr(0, 30));
	EXPECT_EQ(std::string(30, 'a'), hex_from(device.path, 30));
}

TEST(RandomHex, EmptyDeviceAndDirectoryFallBack) {
	Device device("");
	EXPECT_TRUE(is_lowercase_hex(hex_from(device.path, 32)));
	EXPECT_NE(std::string(32, '0'), hex_from(device.path, 32));
	EXPECT_TRUE(is_lowercase_hex(hex_from("/tmp", 32)));
}

TEST(RandomHex, ThreadsThatFallBackDiffer) {
	std::vector<std::string> texts(8);
	std::vector<std::thread> threads;
	for (std::string &text : texts) {
		threads.emplace_back([&text] { text = hex_from(ABSENT, 32); });
	}
	for (std::thread &thread : threads) {
		thread.join();
	}
	EXPECT_EQ(8u, std::set<std::string>(texts.begin(), texts.end()).size());
}

TEST(RandomHex, DeviceIsClosedAgain) {
	int before = lowest_free_descriptor();
	close(before);
	for (int i = 0; i < 10; i++) {
		hex_from("/dev/urandom", 16);
		hex_from("/dev/null", 16);
	}
	int after = lowest_free_descriptor();
	close(after);
	EXPECT_EQ(before, after);
}

TEST(RandomHex, NullBufferDoesNothing) {
	kaq_random_hex(16, nullptr);
	kaq_random_hex_logic(16, nullptr);
	kaq_random_hex_from(nullptr, "/dev/urandom", 16, nullptr);
	SUCCEED();
}

TEST(RandomHex, LogicLeavesTheBufferAloneBelowOne) {
	char buffer[4] = "abc";
	kaq_random_hex_logic(0, buffer);
	kaq_random_hex_logic(-1, buffer);
	kaq_random_hex_logic(INT64_MIN, buffer);
	EXPECT_STREQ("abc", buffer);
}

TEST(RandomHex, OuterFormClearsFirst) {
	char buffer[4] = "abc";
	kaq_random_hex(0, buffer);
	EXPECT_EQ(0, memcmp(buffer, "\0bc", 4));
	kaq_random_hex(-1, buffer);
	EXPECT_EQ(0, memcmp(buffer, "\0bc", 4));
	kaq_random_hex(3, buffer);
	EXPECT_EQ(3u, strlen(buffer));
}

TEST(RandomSeed, MixesItsParts) {
	EXPECT_EQ(UINT64_C(0x0000000100000000), kaq_random_seed(1, 0, 0, 0));
	EXPECT_EQ(UINT64_C(5), kaq_random_seed(0, 5, 0, 0));
	EXPECT_EQ(UINT64_C(7), kaq_random_seed(0, 0, 7, 0));
	EXPECT_EQ(UINT64_C(0x30000), kaq_random_seed(0, 0, 0, 3));
	EXPECT_EQ((UINT64_C(1700000000) << 32 ^ 123456789) ^ 4242 ^ UINT64_C(4240) << 16,
			  kaq_random_seed(1700000000, 123456789, 4242, 4240));
}

TEST(RandomSeed, ProcessIdIsWidenedAsASignedValue) {
	EXPECT_EQ(UINT64_C(0xffffffffffff0000), kaq_random_seed(0, 0, 0, -1));
}

TEST(RandomSeed, ZeroIsReplaced) {
	EXPECT_EQ(UINT64_C(0x9e3779b97f4a7c15), kaq_random_seed(0, 0, 0, 0));
	EXPECT_EQ(UINT64_C(0x9e3779b97f4a7c15), kaq_random_seed(0, 5, 5, 0));
}

TEST(RandomFallback, LowBytesOfTheKnownSequence) {
	/* splitmix64 with the seed 1234567 begins 6457827717110365317, 3203168211198807973,
	 * 9817491932198370423, 4593380528125082431, 16408922859458223821. */
	unsigned char bytes[5];
	kaq_random_fallback(1234567, bytes, sizeof bytes);
	const uint64_t expected[] = {UINT64_C(6457827717110365317), UINT64_C(3203168211198807973),
								 UINT64_C(9817491932198370423), UINT64_C(4593380528125082431),
								 UINT64_C(16408922859458223821)};
	for (size_t i = 0; i < sizeof bytes; i++) {
		EXPECT_EQ(expected[i] & 255, bytes[i]) << i;
	}
}

TEST(RandomFallback, BytesOfFourSeedsAreThoseOfAnotherProgram) {
	const struct {
		uint64_t seed;
		const char *bytes;
	} cases[] = {
		{0, "aff44fec9beae13cc3a609f67b2f19ab"},
		{UINT64_MAX, "20c9e9d2ae33a564841c15a7db8ac1e8"},
		{UINT64_C(0x9e3779b97f4a7c15), "f44fec9beae13cc3a609f67b2f19ab55"},
		{kaq_random_seed(1700000000, 123456789, 4242, 4240), "f22956278b77ea08de421c30a8b229c0"},
	};
	for (const auto &known : cases) {
		unsigned char bytes[16];
		kaq_random_fallback(known.seed, bytes, sizeof bytes);
		Device device(std::string((const char *)bytes, sizeof bytes));
		EXPECT_EQ(known.bytes, hex_from(device.path, 32)) << known.seed;
	}
}

TEST(RandomFallback, NoBytesAreNoBytes) {
	unsigned char byte = 0x5a;
	kaq_random_fallback(1, &byte, 0);
	EXPECT_EQ(0x5a, byte);
}
