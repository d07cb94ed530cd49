#include "util/file_lock.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <system_error>

#include "records.h"

using kaq::FileLock;

TEST(FileLock, IsOneProcesssAtATime) {
	kaq_test::Directory directory;
	std::string path = directory.path() + "/lock";
	EXPECT_EQ(FileLock::holder(path), 0);
	auto lock = std::make_unique<FileLock>(path);
	EXPECT_EQ(FileLock::holder(path), getpid());
	try {
		FileLock second(path);
		FAIL() << "there are two";
	} catch (const std::system_error &error) {
		EXPECT_EQ(error.code().value(), EWOULDBLOCK);
	}
	lock.reset();
	FileLock third(path);
}

TEST(FileLock, WritesToNoFileElsewhere) {
	kaq_test::Directory directory;
	std::string other = directory.path() + "/other";
	std::string path = directory.path() + "/lock";
	std::ofstream(other) << "mine";
	ASSERT_EQ(symlink(other.c_str(), path.c_str()), 0);
	EXPECT_THROW(FileLock lock(path), std::system_error);
	std::string content;
	std::ifstream(other) >> content;
	EXPECT_EQ(content, "mine");
}

TEST(FileLock, NeedsItsDirectory) {
	try {
		FileLock lock("/nowhere/at/all");
		FAIL();
	} catch (const std::system_error &error) {
		EXPECT_EQ(error.code().value(), ENOENT);
	}
}
