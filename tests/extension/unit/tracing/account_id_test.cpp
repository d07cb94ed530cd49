#include "tracing/account_id.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

/* A key file in a directory of its own. */
struct KeyFile {
	char directory[64] = "/tmp/kaq_account_XXXXXX";
	std::string path;

	KeyFile() {
		EXPECT_NE(nullptr, mkdtemp(directory));
		path = std::string(directory) + "/key";
	}
	explicit KeyFile(const std::string &content) : KeyFile() {
		FILE *file = fopen(path.c_str(), "w");
		EXPECT_EQ(content.size(), fwrite(content.data(), 1, content.size(), file));
		fclose(file);
	}
	~KeyFile() {
		unlink(path.c_str());
		rmdir(directory);
	}
};

std::string id_from(const char *text, const char *file) {
	char id[KAQ_ACCOUNT_ID_LENGTH + 1];
	memset(id, '!', sizeof id);
	kaq_account_id_from(text, file, id);
	EXPECT_GT(sizeof id, strnlen(id, sizeof id));
	return std::string(id, strnlen(id, sizeof id));
}

std::string id_of_text(const std::string &text) {
	return id_from(text.c_str(), nullptr);
}

std::string id_of_file(const std::string &content) {
	KeyFile file(content);
	return id_from(nullptr, file.path.c_str());
}

} // namespace

TEST(AccountId, IsTheLastTwelveCharactersOfTheKey) {
	EXPECT_EQ("K7d9Qw3xZ1Lm", id_of_text("a-key-of-some-length-K7d9Qw3xZ1Lm"));
	EXPECT_EQ("abcdefghijkl", id_of_text("Xabcdefghijkl"));
}

TEST(AccountId, KeyOfTwelveCharactersIsItsOwnIdAndAShorterOneHasNone) {
	EXPECT_EQ("abcdefghijkl", id_of_text("abcdefghijkl"));
	EXPECT_EQ("", id_of_text("abcdefghijk"));
	EXPECT_EQ("", id_of_text("a"));
	EXPECT_EQ("", id_of_file("abcdefghijk\n"));
}

TEST(AccountId, SurroundingBlanksAreDroppedAndInnerOnesKept) {
	EXPECT_EQ("abcdefghijkl", id_of_text(" \t\n\v\f\rabcdefghijkl \t\n\v\f\r"));
	EXPECT_EQ("ef gh ij  kl", id_of_text(" ab cd ef gh ij  kl "));
	EXPECT_EQ("abcdefghijkl", id_of_file(" \tabcdefghijkl\t \n"));
}

TEST(AccountId, BlanksDoNotCountAsLength) {
	for (const char *blank : {" ", "\t", "\n", "\v", "\f", "\r"}) {
		EXPECT_EQ("", id_of_text(blank + std::string("abcdefghijk"))) << (int)*blank;
		EXPECT_EQ("", id_of_text(std::string("abcdefghijk") + blank)) << (int)*blank;
	}
	EXPECT_EQ("", id_of_file(" abcdefghijk \n"));
}

TEST(AccountId, BytesAbove127AreNoBlanks) {
	EXPECT_EQ("abcdefghijk\xa0", id_of_text("abcdefghijk\xa0"));
}

TEST(AccountId, VariableGoesBeforeTheFile) {
	KeyFile file("from-the-file\n");
	EXPECT_EQ("the-variable", id_from("from-the-variable", file.path.c_str()));
}

TEST(AccountId, ShortVariableDoesNotBringTheFileIn) {
	KeyFile file("from-the-file\n");
	EXPECT_EQ("", id_from("short", file.path.c_str()));
}

TEST(AccountId, UnsetEmptyAndBlankVariableBringTheFileIn) {
	KeyFile file("key-from-the-file\n");
	for (const char *text : {(const char *)nullptr, "", " ", " \t\r\n"}) {
		EXPECT_EQ("rom-the-file", id_from(text, file.path.c_str())) << (text ? text : "(unset)");
	}
}

TEST(AccountId, FirstLineOfTheFileOnlyCounts) {
	EXPECT_EQ("-first-line!", id_of_file("the-first-line!\nthe-second-line\n"));
	EXPECT_EQ("", id_of_file("short\nlong-enough-by-itself\n"));
	EXPECT_EQ("", id_of_file("\nlong-enough-by-itself\n"));
	EXPECT_EQ("", id_of_file("   \nlong-enough-by-itself\n"));
}

TEST(AccountId, LineEndsAreNoPartOfTheKey) {
	EXPECT_EQ("abcdefghijkl", id_of_file("abcdefghijkl"));
	EXPECT_EQ("abcdefghijkl", id_of_file("abcdefghijkl\n"));
	EXPECT_EQ("abcdefghijkl", id_of_file("abcdefghijkl\r\n"));
}

TEST(AccountId, EmptyFileGivesNone) {
	EXPECT_EQ("", id_of_file(""));
	EXPECT_EQ("", id_of_file("\n"));
}

TEST(AccountId, LongKeyIsReadToItsEnd) {
	EXPECT_EQ("the-very-end", id_of_file(std::string(3000, 'x') + "the-very-end\n"));
	EXPECT_EQ("the-very-end", id_of_text(std::string(100000, 'x') + "the-very-end"));
}

TEST(AccountId, FileWithoutAnEndIsReadInPart) {
	EXPECT_EQ(std::string(12, 'x'), id_of_file(std::string(1 << 20, 'x')));
}

TEST(AccountId, MissingFileGivesNone) {
	KeyFile file;
	EXPECT_EQ("", id_from(nullptr, file.path.c_str()));
	EXPECT_EQ("", id_from(nullptr, nullptr));
}

TEST(AccountId, DirectoryAndDeviceGiveNone) {
	EXPECT_EQ("", id_from(nullptr, "/tmp"));
	EXPECT_EQ("", id_from(nullptr, "/dev/zero"));
}

TEST(AccountId, FileThatCannotBeReadGivesNone) {
	EXPECT_EQ("", id_from(nullptr, "/proc/self/mem"));
}

TEST(AccountId, PipeWithoutAWriterIsNotWaitedFor) {
	KeyFile file;
	ASSERT_EQ(0, mkfifo(file.path.c_str(), 0600));
	EXPECT_EQ("", id_from(nullptr, file.path.c_str()));
}

TEST(AccountId, PipeThatHoldsAKeyIsLeftAlone) {
	KeyFile file;
	ASSERT_EQ(0, mkfifo(file.path.c_str(), 0600));
	FILE *writer = fopen(file.path.c_str(), "r+");
	ASSERT_NE(nullptr, writer);
	fputs("abcdefghijkl\n", writer);
	fflush(writer);
	EXPECT_EQ("", id_from(nullptr, file.path.c_str()));
	fclose(writer);
}

TEST(AccountId, FileIsClosedAgain) {
	KeyFile file("abcdefghijkl\n");
	int before = dup(STDERR_FILENO);
	close(before);
	for (int i = 0; i < 10; i++) {
		id_from(nullptr, file.path.c_str());
		id_from(nullptr, "/tmp");
	}
	int after = dup(STDERR_FILENO);
	close(after);
	EXPECT_EQ(before, after);
}

TEST(AccountId, OfTheProcessIsReadWhenTold) {
	setenv("KAQ_ACCOUNT_KEY", "the-first-account", 1);
	kaq_read_account_key();
	EXPECT_STREQ("irst-account", kaq_account_id());
	setenv("KAQ_ACCOUNT_KEY", "the-other-account", 1);
	EXPECT_STREQ("irst-account", kaq_account_id());
	kaq_read_account_key();
	EXPECT_STREQ("ther-account", kaq_account_id());
	unsetenv("KAQ_ACCOUNT_KEY");
}

TEST(AccountId, OfTheProcessIsNullWithoutAKeyThatIsLongEnough) {
	setenv("KAQ_ACCOUNT_KEY", "the-first-account", 1);
	kaq_read_account_key();
	setenv("KAQ_ACCOUNT_KEY", "short", 1);
	kaq_read_account_key();
	EXPECT_EQ(nullptr, kaq_account_id());
	unsetenv("KAQ_ACCOUNT_KEY");
}
