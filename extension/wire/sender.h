/* One message to the data port of the collector. */
#pragma once

/*
 * Connects, writes `text` without its NUL, and disconnects; nothing is read and nothing is retried.
 * A text that cannot be sent, or not in full within the time-outs of client.h, is silently lost. A
 * null text opens no connection.
 */
void kaq_send_text(const char *address, int port, const char *text);
