#include "wire/sender.h"

#include <string.h>
#include <unistd.h>

#include "wire/client.h"

void kaq_send_text(const char *address, int port, const char *text) {
	if (text == nullptr) {
		return;
	}
	int fd = kaq_open_socket();
	if (fd < 0) {
		sender_error("error opening socket");
	}
	if (kaq_connect(fd, address, port) != 0) {
		sender_error("connect failed");
	} else if (kaq_write_once(fd, text, strlen(text)) < 0) {
		sender_error("error on writing");
	}
	if (fd >= 0) {
		close(fd);
	}
}
