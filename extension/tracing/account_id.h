/*
 * The account identifier: the last characters of the account key. The key itself is read once per
 * process and not kept.
 */
#pragma once

#define KAQ_ACCOUNT_ID_LENGTH 12
#define KAQ_ACCOUNT_KEY_VARIABLE "KAQ_ACCOUNT_KEY"
#define KAQ_ACCOUNT_KEY_FILE "/opt/kaq/conf/account_key"

/* Reads the key: the environment variable, or where it is unset or blank the first line of the
 * file. Once per module start, before threads serve requests. */
void kaq_read_account_key(void);

/* The identifier, or null without a key of sufficient length. Valid until the next read. Any
 * thread. */
const char *kaq_account_id(void);

/* The same from a given text and file; either may be null. `id` becomes "" when there is none. */
void kaq_account_id_from(const char *text, const char *file, char id[KAQ_ACCOUNT_ID_LENGTH + 1]);
