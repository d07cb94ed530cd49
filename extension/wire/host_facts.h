/*
 * Facts about this machine, as sent to the collector. They are gathered when a thread's globals are
 * created and do not change afterwards. Each function works on its arguments and on read-only
 * system state; any thread. Heap texts belong to the caller.
 *
 * The functions with a destination pointer replace the text there: the old one is freed. REQUIRES:
 * *dest is null or a block of the process heap.
 */
#pragma once

struct ifaddrs;

#define KAQ_HOST_TYPE_SIZE 8
#define KAQ_HOST_NAME_SIZE 256

/* 1 when the environment variable that marks the platform exists, even if empty, else 0. */
int kaq_check_kubernetes(void);   /* KUBERNETES_SERVICE_HOST */
int kaq_check_ecs(void);          /* ECS_AGENT_URI */
int kaq_check_azure_webapp(void); /* WEBSITE_SITE_NAME */

/*
 * 1 when the control groups of process 1 show a container, else 0. `name` receives the path
 * component after the first one that is exactly "docker", without a final line feed; it stays empty
 * when nothing follows. If `name` is not empty on entry the result is 0. Interface: kept for
 * callers outside; the extension calls the `_in` form, which takes the file's path.
 */
int kaq_check_docker_v1(char name[KAQ_HOST_NAME_SIZE]);
int kaq_check_docker_v1_in(const char *path, char name[KAQ_HOST_NAME_SIZE]);

/*
 * 1 when a mount of process 1 names both "/containers/" and "/hostname", else 0. `name` receives
 * what follows the first "/containers/" up to a blank, at most 64 characters; the last such line
 * wins. Interface: kept for callers outside; the extension calls the `_in` form, which takes the
 * file's path.
 */
int kaq_check_docker_v2(char name[KAQ_HOST_NAME_SIZE]);
int kaq_check_docker_v2_in(const char *path, char name[KAQ_HOST_NAME_SIZE]);

/*
 * Runs the five checks in the order above until one succeeds. `type` becomes "DOCKER" when one
 * did, else "LINUX"; a `name` that is still empty then becomes the system's host name. The `_in`
 * form takes the paths of the two files.
 *
 * REQUIRES: name is an empty text on entry.
 */
void kaq_get_host_type_name(char type[KAQ_HOST_TYPE_SIZE], char name[KAQ_HOST_NAME_SIZE]);
void kaq_get_host_type_name_in(const char *cgroup, const char *mountinfo,
							   char type[KAQ_HOST_TYPE_SIZE], char name[KAQ_HOST_NAME_SIZE]);

/* Canonical name of `host`, or `host` itself when it cannot be resolved; cut to 255 bytes. */
void kaq_get_host_fqdn(const char *host, char dest[KAQ_HOST_NAME_SIZE]);

/*
 * Addresses of all interfaces, IPv4 and IPv6, in the system's order, as quoted, comma-separated
 * JSON strings; an empty text when there are none. *dest stays as it is when the system cannot
 * list them or memory is short.
 */
void kaq_get_current_host_ip(char **dest);

/* The same text for a given list, new on the heap, or null when memory is short. */
char *kaq_join_addresses(const struct ifaddrs *list);

void kaq_get_os(char **dest);         /* always "LINUX" */
void kaq_get_os_arch(char **dest);    /* always "amd64" */
void kaq_get_os_version(char **dest); /* the kernel's release, or "unknown" */
