#pragma once
/* A listening socket on a free port of the loopback interface. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/socket.h>

/* Returns the descriptor and sets *port; -1, having said why on standard error. */
static inline int open_listener(int *port) {
	struct sockaddr_in address = {};
	socklen_t size = sizeof address;
	address.sin_family = AF_INET;
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd < 0 || bind(fd, (struct sockaddr *)&address, sizeof address) != 0 ||
		listen(fd, SOMAXCONN) != 0 || getsockname(fd, (struct sockaddr *)&address, &size) != 0) {
		perror("listener");
		return -1;
	}
	*port = ntohs(address.sin_port);
	return fd;
}
