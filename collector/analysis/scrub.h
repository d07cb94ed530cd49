/*
 * Takes out of a request what must not be kept, before anything of it is: passwords, tokens,
 * sessions, numbers of payment cards, and the literals of statements. docs/collector.md has the
 * table of what is taken out. In its place stands a mark that keeps how long it was, roughly.
 */
#pragma once

#include "analysis/secret_texts.h"
#include "model/transaction.h"

namespace kaq {

/*
 * Every text of the transaction. Statements that are repeated with the same values are told apart
 * from others by Span::values, since their literals are gone afterwards.
 */
void scrub(Transaction &transaction, const ScrubSettings &settings);

} // namespace kaq
