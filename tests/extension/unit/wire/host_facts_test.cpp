#include "wire/host_facts.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace {

/* A file with the given content that goes away with the record. */
struct File {
	char path[64] = "/tmp/kaq_host_facts_XXXXXX";

	explicit File(const std::string &content) {
		int fd = mkstemp(path);
		EXPECT_EQ((ssize_t)content.size(), write(fd, content.data(), content.size()));
		close(fd);
	}
	~File() {
		unlink(path);
	}
};

const char ABSENT[] = "/tmp/kaq_host_facts_absent/file";

typedef int (*check_fn)(const char *, char *);

std::string checked(check_fn check, const std::string &content, int expected) {
	File file(content);
	char name[KAQ_HOST_NAME_SIZE] = {};
	EXPECT_EQ(expected, check(file.path, name));
	return name;
}

std::string v1(const std::string &content, int expected) {
	return checked(kaq_check_docker_v1_in, content, expected);
}

std::string v2(const std::string &content, int expected) {
	return checked(kaq_check_docker_v2_in, content, expected);
}

const char *const VARIABLES[] = {"KUBERNETES_SERVICE_HOST", "ECS_AGENT_URI", "WEBSITE_SITE_NAME"};

/* Each test starts without the variables that mark a platform. */
struct HostType : testing::Test {
	void SetUp() override {
		for (const char *variable : VARIABLES) {
			unsetenv(variable);
		}
	}
	void TearDown() override {
		SetUp();
	}
};

std::string system_name() {
	char name[KAQ_HOST_NAME_SIZE] = {};
	gethostname(name, sizeof name);
	return name;
}

/* Type and name, separated by a blank. */
std::string type_and_name(const char *cgroup, const char *mountinfo) {
	char type[KAQ_HOST_TYPE_SIZE] = {};
	char name[KAQ_HOST_NAME_SIZE] = {};
	kaq_get_host_type_name_in(cgroup, mountinfo, type, name);
	return std::string(type) + " " + name;
}

const std::string ID(64, 'b');
const std::string MOUNT = "612 600 254:1 /docker/containers/" + ID +
						  "/hostname /etc/hostname rw,relatime - ext4 /dev/vda1 rw\n";

struct Interfaces {
	std::vector<ifaddrs> entries;
	std::vector<sockaddr_storage> addresses;

	/* Null: an entry without an address; "packet": one of another family. */
	explicit Interfaces(const std::vector<const char *> &texts)
		: entries(texts.size()), addresses(texts.size()) {
		for (size_t i = 0; i < texts.size(); i++) {
			entries[i] = {};
			entries[i].ifa_next = i + 1 < texts.size() ? &entries[i + 1] : nullptr;
			if (texts[i] == nullptr) {
				continue;
			}
			entries[i].ifa_addr = (sockaddr *)&addresses[i];
			sockaddr_in *v4 = (sockaddr_in *)&addresses[i];
			sockaddr_in6 *v6 = (sockaddr_in6 *)&addresses[i];
			if (inet_pton(AF_INET, texts[i], &v4->sin_addr) == 1) {
				v4->sin_family = AF_INET;
			} else if (inet_pton(AF_INET6, texts[i], &v6->sin6_addr) == 1) {
				v6->sin6_family = AF_INET6;
			} else {
				addresses[i].ss_family = AF_PACKET;
			}
		}
	}
};

std::string joined(const std::vector<const char *> &texts) {
	Interfaces interfaces(texts);
	char *text = kaq_join_addresses(interfaces.entries.data());
	std::string result = text == nullptr ? "(null)" : text;
	free(text);
	return result;
}

} // namespace

TEST_F(HostType, EachVariableIsFoundByItsOwnCheck) {
	EXPECT_EQ(0, kaq_check_kubernetes());
	EXPECT_EQ(0, kaq_check_ecs());
	EXPECT_EQ(0, kaq_check_azure_webapp());
	setenv("KUBERNETES_SERVICE_HOST", "10.0.0.1", 1);
	EXPECT_EQ(1, kaq_check_kubernetes());
	EXPECT_EQ(0, kaq_check_ecs());
	setenv("ECS_AGENT_URI", "http://localhost/", 1);
	EXPECT_EQ(1, kaq_check_ecs());
	EXPECT_EQ(0, kaq_check_azure_webapp());
	setenv("WEBSITE_SITE_NAME", "site", 1);
	EXPECT_EQ(1, kaq_check_azure_webapp());
}

TEST_F(HostType, EmptyVariableExists) {
	for (const char *variable : VARIABLES) {
		setenv(variable, "", 1);
	}
	EXPECT_EQ(1, kaq_check_kubernetes());
	EXPECT_EQ(1, kaq_check_ecs());
	EXPECT_EQ(1, kaq_check_azure_webapp());
}

TEST_F(HostType, PlainHost) {
	EXPECT_EQ("LINUX " + system_name(), type_and_name(ABSENT, ABSENT));
}

TEST_F(HostType, EachPlatformIsReportedAsDockerUnderTheSystemNameIsMeant) {
	for (const char *variable : VARIABLES) {
		setenv(variable, "x", 1);
		EXPECT_EQ("DOCKER " + system_name(), type_and_name(ABSENT, ABSENT)) << variable;
		unsetenv(variable);
	}
}

TEST_F(HostType, PlatformVariableEndsTheSearch) {
	File cgroup("1:name=systemd:/docker/abc123\n");
	File mountinfo(MOUNT);
	setenv("ECS_AGENT_URI", "x", 1);
	EXPECT_EQ("DOCKER " + system_name(), type_and_name(cgroup.path, mountinfo.path));
}

TEST_F(HostType, ControlGroupComesBeforeTheMounts) {
	File cgroup("1:name=systemd:/docker/abc123\n");
	File mountinfo(MOUNT);
	EXPECT_EQ("DOCKER abc123", type_and_name(cgroup.path, mountinfo.path));
}

TEST_F(HostType, MountsComeLast) {
	File cgroup("0::/\n");
	File mountinfo(MOUNT);
	EXPECT_EQ("DOCKER " + ID, type_and_name(cgroup.path, mountinfo.path));
}

TEST_F(HostType, ContainerWithoutANameGetsTheSystemName) {
	File cgroup("1:name=systemd:/docker/\n");
	EXPECT_EQ("DOCKER " + system_name(), type_and_name(cgroup.path, ABSENT));
}

TEST_F(HostType, FormWithoutPathsReadsTheMachinesFiles) {
	char type[KAQ_HOST_TYPE_SIZE] = {};
	char name[KAQ_HOST_NAME_SIZE] = {};
	kaq_get_host_type_name(type, name);
	EXPECT_EQ(type_and_name("/proc/1/cgroup", "/proc/1/mountinfo"), std::string(type) + " " + name);
	EXPECT_NE('\0', name[0]);
	char direct[KAQ_HOST_NAME_SIZE] = {};
	char through[KAQ_HOST_NAME_SIZE] = {};
	EXPECT_EQ(kaq_check_docker_v1_in("/proc/1/cgroup", direct), kaq_check_docker_v1(through));
	EXPECT_STREQ(direct, through);
	EXPECT_EQ(kaq_check_docker_v2_in("/proc/1/mountinfo", direct), kaq_check_docker_v2(through));
	EXPECT_STREQ(direct, through);
}

TEST(DockerV1, UnreadableFileIsNoContainer) {
	char name[KAQ_HOST_NAME_SIZE] = {};
	EXPECT_EQ(0, kaq_check_docker_v1_in(ABSENT, name));
	EXPECT_STREQ("", name);
}

TEST(DockerV1, FileWithoutTheMarkIsNoContainer) {
	EXPECT_EQ("", v1("12:cpu:/user.slice\n0::/init.scope\n", 0));
	EXPECT_EQ("", v1("", 0));
}

TEST(DockerV1, ComponentBehindTheMarkIsTheName) {
	EXPECT_EQ("abc123", v1("1:name=systemd:/docker/abc123\n", 1));
	EXPECT_EQ("abc123", v1("0::/\n1:cpu:/x/docker/abc123/tail\n", 1));
}

TEST(DockerV1, MarkMustBeTheWholeComponent) {
	EXPECT_EQ("", v1("1:cpu:/docker-abc/def\n1:cpu:/mydocker/def\n1:cpu:/Docker/def\n", 0));
	/* The line feed belongs to the last component. */
	EXPECT_EQ("", v1("1:cpu:/docker\n", 0));
}

TEST(DockerV1, FirstNameWins) {
	EXPECT_EQ("one", v1("1:a:/docker/one\n1:b:/docker/two\n", 1));
	EXPECT_EQ("one", v1("1:a:/docker/one/docker/two\n", 1));
	EXPECT_EQ("docker", v1("1:a:/docker/docker/two\n", 1));
}

TEST(DockerV1, OneFinalLineFeedIsDropped) {
	EXPECT_EQ("abc", v1("1:a:/docker/abc", 1));
	EXPECT_EQ("abc\r", v1("1:a:/docker/abc\r\n", 1));
}

TEST(DockerV1, MarkWithoutANameCountsAndTheSearchGoesOn) {
	EXPECT_EQ("", v1("1:a:/docker/\n", 1));
	EXPECT_EQ("", v1("1:a:/docker", 1));
	EXPECT_EQ("two", v1("1:a:/docker/\n1:b:/docker/two\n", 1));
	EXPECT_EQ("", v1("1:a:/docker/\n1:b:/other/two\n", 1));
}

TEST(DockerV1, NameThatIsThereAlreadyEndsTheSearch) {
	File file("1:a:/docker/abc\n");
	char name[KAQ_HOST_NAME_SIZE] = "old";
	EXPECT_EQ(0, kaq_check_docker_v1_in(file.path, name));
	EXPECT_STREQ("old", name);
}

TEST(DockerV1, LongNameIsCutToTheBuffer) {
	EXPECT_EQ(std::string(255, 'n'), v1("1:a:/docker/" + std::string(300, 'n') + "\n", 1));
	EXPECT_EQ(std::string(255, 'n'), v1("1:a:/docker/" + std::string(255, 'n') + "\n", 1));
}

TEST(DockerV1, LongLineIsReadInPiecesOf1023Characters) {
	EXPECT_EQ("abc", v1(std::string(1023, 'x') + "docker/abc\n", 1));
	EXPECT_EQ("", v1(std::string(1022, 'x') + "docker/abc\n", 0));
}

TEST(DockerV2, UnreadableFileIsNoContainer) {
	char name[KAQ_HOST_NAME_SIZE] = {};
	EXPECT_EQ(0, kaq_check_docker_v2_in(ABSENT, name));
	EXPECT_STREQ("", name);
}

TEST(DockerV2, IdentifierOf64Characters) {
	EXPECT_EQ(ID, v2("600 500 0:1 / / rw\n" + MOUNT, 1));
}

TEST(DockerV2, BothMarksAreNeededInOneLine) {
	EXPECT_EQ("", v2("1 /containers/abc/resolv.conf x\n", 0));
	EXPECT_EQ("", v2("1 /pods/abc/hostname x\n", 0));
	EXPECT_EQ("", v2("1 /containers/abc x\n2 /etc/hostname\n", 0));
}

TEST(DockerV2, MarksMayStandInAnyOrder) {
	EXPECT_EQ("abc", v2("1 /etc/hostname /containers/abc x\n", 1));
}

TEST(DockerV2, ShortIdentifierKeepsItsPathIsMeant) {
	EXPECT_EQ("abc/hostname", v2("1 /containers/abc/hostname /etc/hostname rw\n", 1));
}

TEST(DockerV2, FirstOccurrenceInALineIsTaken) {
	EXPECT_EQ("one", v2("1 /containers/one /containers/two /hostname\n", 1));
}

TEST(DockerV2, LastLineWins) {
	EXPECT_EQ("two", v2("1 /containers/one /hostname\n2 /containers/two /hostname\n", 1));
}

TEST(DockerV2, OlderNameIsOverwritten) {
	File file("1 /containers/abc /hostname\n");
	char name[KAQ_HOST_NAME_SIZE] = "old";
	EXPECT_EQ(1, kaq_check_docker_v2_in(file.path, name));
	EXPECT_STREQ("abc", name);
}

TEST(DockerV2, MarkWithoutAnIdentifierCountsAndGivesNoName) {
	EXPECT_EQ("", v2("1 /hostname /containers/\n", 1));
}

TEST(DockerV2, LongLineIsReadInPiecesOf1023Characters) {
	EXPECT_EQ("abc", v2(std::string(1023, 'x') + "/containers/abc /hostname\n", 1));
	EXPECT_EQ("", v2(std::string(1010, 'x') + "/containers/abc /hostname\n", 0));
}

TEST(DockerFiles, AreClosedAgain) {
	File cgroup("1:a:/docker/abc\n");
	File mountinfo(MOUNT);
	int before = dup(0);
	close(before);
	for (int i = 0; i < 5; i++) {
		char name[KAQ_HOST_NAME_SIZE] = {};
		EXPECT_EQ(1, kaq_check_docker_v1_in(cgroup.path, name));
		EXPECT_EQ(1, kaq_check_docker_v2_in(mountinfo.path, name));
	}
	int after = dup(0);
	close(after);
	EXPECT_EQ(before, after);
}

TEST(HostFqdn, NumericNameIsItsOwnCanonicalName) {
	char dest[KAQ_HOST_NAME_SIZE];
	memset(dest, 'x', sizeof dest);
	kaq_get_host_fqdn("127.0.0.1", dest);
	EXPECT_STREQ("127.0.0.1", dest);
}

TEST(HostFqdn, UnresolvableNameIsKept) {
	/* No resolver looks for a label of more than 63 characters. */
	std::string name = std::string(70, 'a') + ".invalid";
	char dest[KAQ_HOST_NAME_SIZE];
	memset(dest, 'x', sizeof dest);
	kaq_get_host_fqdn(name.c_str(), dest);
	EXPECT_EQ(name, dest);
}

TEST(HostFqdn, LongNameIsCutToTheBuffer) {
	std::string name(1000, 'a');
	char dest[KAQ_HOST_NAME_SIZE];
	memset(dest, 'x', sizeof dest);
	kaq_get_host_fqdn(name.c_str(), dest);
	EXPECT_EQ(std::string(255, 'a'), dest);
}

TEST(HostAddresses, QuotedAndSeparatedByCommas) {
	EXPECT_EQ("\"127.0.0.1\"", joined({"127.0.0.1"}));
	EXPECT_EQ("\"127.0.0.1\",\"10.0.0.5\",\"::1\"", joined({"127.0.0.1", "10.0.0.5", "::1"}));
}

TEST(HostAddresses, LoopbackAndLinkLocalAreNotFilteredIsMeant) {
	EXPECT_EQ("\"127.0.0.1\",\"fe80::1\",\"169.254.1.1\"",
			  joined({"127.0.0.1", "fe80::1", "169.254.1.1"}));
}

TEST(HostAddresses, EntriesOfOtherFamiliesOrWithoutAnAddressAreSkipped) {
	EXPECT_EQ("\"10.0.0.5\",\"::1\"",
			  joined({"packet", nullptr, "10.0.0.5", "packet", "::1", nullptr}));
}

TEST(HostAddresses, LongestTextsFit) {
	const char *longest = "1234:5678:9abc:def0:1234:5678:9abc:def0";
	EXPECT_EQ("\"" + std::string(longest) + "\",\"" + longest + "\",\"255.255.255.255\"",
			  joined({longest, longest, "255.255.255.255"}));
}

TEST(HostAddresses, NoneGivesAnEmptyText) {
	EXPECT_EQ("", joined({"packet"}));
	char *text = kaq_join_addresses(nullptr);
	EXPECT_STREQ("", text);
	free(text);
}

TEST(HostAddresses, ReplacesAnOlderText) {
	ifaddrs *list = nullptr;
	ASSERT_EQ(0, getifaddrs(&list));
	char *expected = kaq_join_addresses(list);
	freeifaddrs(list);
	char *dest = strdup("older");
	kaq_get_current_host_ip(&dest);
	EXPECT_STREQ(expected, dest);
	free(dest);
	free(expected);
}

TEST(OperatingSystem, FixedTextsReplaceOlderOnes) {
	char *os = strdup("older");
	char *arch = nullptr;
	kaq_get_os(&os);
	kaq_get_os_arch(&arch);
	EXPECT_STREQ("LINUX", os);
	EXPECT_STREQ("amd64", arch);
	kaq_get_os_arch(&arch);
	EXPECT_STREQ("amd64", arch);
	free(os);
	free(arch);
}

TEST(OperatingSystem, VersionIsTheKernelRelease) {
	utsname names;
	ASSERT_EQ(0, uname(&names));
	char *version = strdup("older");
	kaq_get_os_version(&version);
	EXPECT_STREQ(names.release, version);
	free(version);
}
