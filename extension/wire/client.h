/*
 * The client side of the TCP link to the collector: address, connection, one write.
 *
 * Every message has a connection of its own: kaq_collector_address, kaq_open_socket, kaq_connect,
 * kaq_write_once, close. Nothing is kept between connections and nothing is shared between
 * threads. No function raises a signal, and none but the name resolution, whose time-outs are the
 * system's, blocks longer than the constants below say.
 */
#pragma once

#include <stddef.h>
#include <sys/types.h>

struct addrinfo;

#define KAQ_CONNECT_TIMEOUT_MS 250 /* establishing a connection */
#define KAQ_WRITE_TIMEOUT_MS 1000  /* writing a whole message */
#define KAQ_ANSWER_TIMEOUT_MS 1000 /* reading a whole answer */

/* Bytes of an address text with its NUL. */
#define KAQ_ADDRESS_SIZE 128

/* Called when the status exchange or the data send fails. Both discard the message. */
void client_error(const char *message);
void sender_error(const char *message);

/*
 * Resolves a host name to dotted IPv4 text. Entries of other families are passed over; of several
 * IPv4 addresses the last one that the resolver lists wins. Returns 0, or 1 when the name has no
 * IPv4 address; `dest` then holds "127.0.0.1".
 */
int hostname_to_ip(const char *name, char dest[KAQ_ADDRESS_SIZE]);

/*
 * The same choice from a given resolver list: writes the last IPv4 address and returns 0, or
 * returns 1 and leaves `dest` as it is when there is none. A null list has none.
 */
int kaq_last_ipv4(const struct addrinfo *list, char dest[KAQ_ADDRESS_SIZE]);

/*
 * The collector's address: `ip` if it is neither null nor empty (copied unchecked, cut to 127
 * characters), else `hostname` resolved if it is neither, else "127.0.0.1".
 */
void kaq_collector_address(const char *ip, const char *hostname, char dest[KAQ_ADDRESS_SIZE]);

/*
 * New TCP socket, or -1. Programs that the process starts do not inherit it. The caller closes.
 */
int kaq_open_socket(void);

/*
 * Connects within KAQ_CONNECT_TIMEOUT_MS; returns 0, or -1 for every failure, a time-out and an
 * invalid descriptor too. An address that is no dotted IPv4 text counts as 0.0.0.0. Of the port
 * the low 16 bits are used.
 */
int kaq_connect(int fd, const char *address, int port);

/*
 * Writes `text`: what the system takes at once, and the rest with one send that takes at most
 * KAQ_WRITE_TIMEOUT_MS. Returns the number of bytes that the system took (when that send is cut
 * short it is not continued), or -1 when it took none.
 */
ssize_t kaq_write_once(int fd, const char *text, size_t len);
