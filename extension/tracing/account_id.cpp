#include "tracing/account_id.h"

#include <ctype.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* More than any key; what stands behind it in the file is not looked at. */
#define KAQ_KEY_LINE_SIZE 4096

static char account_id[KAQ_ACCOUNT_ID_LENGTH + 1];

/* Drops surrounding blanks; the bounds are those of what remains. */
static void kaq_trim(const char **begin, const char **end) {
	while (*begin < *end && isspace((unsigned char)**begin)) {
		(*begin)++;
	}
	while (*end > *begin && isspace((unsigned char)(*end)[-1])) {
		(*end)--;
	}
}

/* Returns whether there was a key at all. */
static bool kaq_take_id(const char *text, size_t length, char id[KAQ_ACCOUNT_ID_LENGTH + 1]) {
	const char *begin = text;
	const char *end = text + length;
	kaq_trim(&begin, &end);
	if (end - begin >= KAQ_ACCOUNT_ID_LENGTH) {
		memcpy(id, end - KAQ_ACCOUNT_ID_LENGTH, KAQ_ACCOUNT_ID_LENGTH);
		id[KAQ_ACCOUNT_ID_LENGTH] = '\0';
	}
	return end > begin;
}

/* Anything but a regular file is left alone: reading it could wait for ever. */
static size_t kaq_read_start(const char *file, char *buffer, size_t size) {
	int fd = open(file, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
	if (fd < 0) {
		return 0;
	}
	struct stat facts;
	ssize_t length = 0;
	if (fstat(fd, &facts) == 0 && S_ISREG(facts.st_mode)) {
		length = read(fd, buffer, size);
	}
	close(fd);
	return length > 0 ? (size_t)length : 0;
}

void kaq_account_id_from(const char *text, const char *file, char id[KAQ_ACCOUNT_ID_LENGTH + 1]) {
	id[0] = '\0';
	if (text && kaq_take_id(text, strlen(text), id)) {
		return;
	}
	char line[KAQ_KEY_LINE_SIZE] = "";
	size_t length = file ? kaq_read_start(file, line, sizeof(line)) : 0;
	const char *line_end = (const char *)memchr(line, '\n', length);
	kaq_take_id(line, line_end ? (size_t)(line_end - line) : length, id);
	explicit_bzero(line, sizeof(line));
}

void kaq_read_account_key(void) {
	kaq_account_id_from(getenv(KAQ_ACCOUNT_KEY_VARIABLE), KAQ_ACCOUNT_KEY_FILE, account_id);
}

const char *kaq_account_id(void) {
	return account_id[0] ? account_id : nullptr;
}
