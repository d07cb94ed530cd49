#include "wire/host_facts.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "util/kaq_strings.h"

/* Lines are read in pieces of up to this many characters less one. */
static const int LINE_SIZE = 1024;

static const char CONTAINERS[] = "/containers/";

/* Bytes of one address: two quotes, a comma, and an IPv6 text with its NUL. */
static const size_t ENTRY_SIZE = 3 + INET6_ADDRSTRLEN;

int kaq_check_kubernetes(void) {
	return getenv("KUBERNETES_SERVICE_HOST") != nullptr;
}

int kaq_check_ecs(void) {
	return getenv("ECS_AGENT_URI") != nullptr;
}

int kaq_check_azure_webapp(void) {
	return getenv("WEBSITE_SITE_NAME") != nullptr;
}

static void kaq_drop_line_feed(char *text) {
	size_t length = strlen(text);
	if (length > 0 && text[length - 1] == '\n') {
		text[length - 1] = '\0';
	}
}

int kaq_check_docker_v1_in(const char *path, char name[KAQ_HOST_NAME_SIZE]) {
	FILE *file = fopen(path, "re");
	if (file == nullptr) {
		return 0;
	}
	int found = 0;
	char line[LINE_SIZE];
	while (*name == '\0' && fgets(line, LINE_SIZE, file) != nullptr) {
		char *rest = nullptr;
		char *token = strtok_r(line, "/", &rest);
		while (token != nullptr && *name == '\0') {
			int marker = strcmp(token, "docker") == 0;
			token = strtok_r(nullptr, "/", &rest);
			if (!marker) {
				continue;
			}
			found = 1;
			if (token != nullptr) {
				kaq_drop_line_feed(token);
				kaq_copy_bounded(name, KAQ_HOST_NAME_SIZE, token);
			}
		}
	}
	fclose(file);
	return found;
}

int kaq_check_docker_v1(char name[KAQ_HOST_NAME_SIZE]) {
	return kaq_check_docker_v1_in("/proc/1/cgroup", name);
}

int kaq_check_docker_v2_in(const char *path, char name[KAQ_HOST_NAME_SIZE]) {
	FILE *file = fopen(path, "re");
	if (file == nullptr) {
		return 0;
	}
	int found = 0;
	char line[LINE_SIZE];
	while (fgets(line, LINE_SIZE, file) != nullptr) {
		const char *container = strstr(line, CONTAINERS);
		if (container != nullptr && strstr(line, "/hostname") != nullptr) {
			found = 1;
			sscanf(container + sizeof CONTAINERS - 1, "%64s", name);
		}
	}
	fclose(file);
	return found;
}

int kaq_check_docker_v2(char name[KAQ_HOST_NAME_SIZE]) {
	return kaq_check_docker_v2_in("/proc/1/mountinfo", name);
}

void kaq_get_host_type_name_in(const char *cgroup, const char *mountinfo,
							   char type[KAQ_HOST_TYPE_SIZE], char name[KAQ_HOST_NAME_SIZE]) {
	int container = kaq_check_kubernetes() || kaq_check_ecs() || kaq_check_azure_webapp() ||
					kaq_check_docker_v1_in(cgroup, name) || kaq_check_docker_v2_in(mountinfo, name);
	kaq_copy_bounded(type, KAQ_HOST_TYPE_SIZE, container ? "DOCKER" : "LINUX");
	if (*name == '\0' && gethostname(name, KAQ_HOST_NAME_SIZE) == 0) {
		name[KAQ_HOST_NAME_SIZE - 1] = '\0';
	}
}

void kaq_get_host_type_name(char type[KAQ_HOST_TYPE_SIZE], char name[KAQ_HOST_NAME_SIZE]) {
	kaq_get_host_type_name_in("/proc/1/cgroup", "/proc/1/mountinfo", type, name);
}

void kaq_get_host_fqdn(const char *host, char dest[KAQ_HOST_NAME_SIZE]) {
	struct addrinfo hints;
	memset(&hints, 0, sizeof hints);
	hints.ai_flags = AI_CANONNAME;
	struct addrinfo *list = nullptr;
	if (getaddrinfo(host, nullptr, &hints, &list) != 0) {
		kaq_copy_bounded(dest, KAQ_HOST_NAME_SIZE, host);
		return;
	}
	const char *canonical = list->ai_canonname;
	kaq_copy_bounded(dest, KAQ_HOST_NAME_SIZE, canonical == nullptr ? host : canonical);
	freeaddrinfo(list);
}

/* The address of an IPv4 or IPv6 entry, else null. */
static const void *kaq_address_of(const struct ifaddrs *entry) {
	if (entry->ifa_addr == nullptr) {
		return nullptr;
	}
	switch (entry->ifa_addr->sa_family) {
	case AF_INET:
		return &((const struct sockaddr_in *)entry->ifa_addr)->sin_addr;
	case AF_INET6:
		return &((const struct sockaddr_in6 *)entry->ifa_addr)->sin6_addr;
	default:
		return nullptr;
	}
}

char *kaq_join_addresses(const struct ifaddrs *list) {
	size_t count = 0;
	for (const struct ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
		count += kaq_address_of(entry) != nullptr;
	}
	char *text = (char *)malloc(count * ENTRY_SIZE + 1);
	if (text == nullptr) {
		return nullptr;
	}
	char *end = text;
	*end = '\0';
	for (const struct ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
		const void *address = kaq_address_of(entry);
		char printed[INET6_ADDRSTRLEN];
		if (address != nullptr &&
			inet_ntop(entry->ifa_addr->sa_family, address, printed, sizeof printed) != nullptr) {
			end += sprintf(end, "%s\"%s\"", end == text ? "" : ",", printed);
		}
	}
	return text;
}

static void kaq_replace(char **dest, char *text) {
	free(*dest);
	*dest = text;
}

void kaq_get_current_host_ip(char **dest) {
	struct ifaddrs *list = nullptr;
	if (getifaddrs(&list) != 0) {
		return;
	}
	char *text = kaq_join_addresses(list);
	freeifaddrs(list);
	if (text != nullptr) {
		kaq_replace(dest, text);
	}
}

void kaq_get_os(char **dest) {
	kaq_replace(dest, kaq_strdup("LINUX"));
}

void kaq_get_os_arch(char **dest) {
	kaq_replace(dest, kaq_strdup("amd64"));
}

void kaq_get_os_version(char **dest) {
	struct utsname names;
	kaq_replace(dest, kaq_strdup(uname(&names) == 0 ? names.release : "unknown"));
}
