/* Where verbs look for the collector. */
#include "cli/places.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "records.h"

using kaq::store_to_ask;

namespace {

constexpr unsigned kNobody = 65534;

/* What another user than the directory's finds: 's' the service's, 'u' the user's. */
char asked_by_another(const std::string &service) {
	pid_t child = fork();
	if (child == 0) {
		bool is_another = geteuid() != 0 || (setgid(kNobody) == 0 && setuid(kNobody) == 0);
		_exit(!is_another ? '?' : store_to_ask(service, "/user") == service ? 's' : 'u');
	}
	int status = 0;
	waitpid(child, &status, 0);
	return WIFEXITED(status) ? static_cast<char>(WEXITSTATUS(status)) : '?';
}

} // namespace

TEST(Places, AUserWhoMayUseTheSocketAsksTheService) {
	if (geteuid() != 0) {
		GTEST_SKIP() << "only root can become another user";
	}
	kaq_test::Directory directory;
	std::string service = directory.path() + "/service";
	std::filesystem::create_directory(service);
	chmod(directory.path().c_str(), 0755);
	chmod(service.c_str(), 0755);
	EXPECT_EQ(asked_by_another(service), 'u');
	std::ofstream(kaq::socket_of(service)) << "";
	chmod(kaq::socket_of(service).c_str(), 0660);
	EXPECT_EQ(asked_by_another(service), 'u');
	chmod(kaq::socket_of(service).c_str(), 0666);
	EXPECT_EQ(asked_by_another(service), 's') << "without the right to write into the directory";
	chmod(service.c_str(), 0700);
	EXPECT_EQ(asked_by_another(service), 'u');
}

TEST(Places, AsksTheUsersWhereThereIsNoService) {
	EXPECT_EQ(store_to_ask("/nowhere/at/all", "/user"), "/user");
	EXPECT_FALSE(std::filesystem::exists("/user"));
}

TEST(Places, AFileWithMistakesIsNotPassedOver) {
	kaq_test::Directory directory;
	std::string path = directory.path() + "/collector.toml";
	std::ofstream(path) << "[store]\ndirectori = '/a'\n";
	EXPECT_EQ(kaq::store_directory("/b", path), "/b");
	try {
		kaq::store_directory("", path);
		FAIL();
	} catch (const std::runtime_error &error) {
		EXPECT_NE(std::string(error.what()).find(path + ":2: "), std::string::npos) << error.what();
	}
}
