/* From a request that has arrived to what the store keeps of it. One thread at a time. */
#pragma once

#include "ingest/fork_lookup.h"
#include "ingest/serving.h"
#include "model/transaction.h"
#include "store/store.h"
#include "util/compression.h"

namespace kaq {

class Recorder {
public:
	/* REQUIRES: both outlive the recorder; all recorders of a store share a lookup. */
	Recorder(Store &store, ForkLookup &forks) : store_(store), forks_(forks) {
	}

	struct Recorded {
		Summary summary;
		std::vector<std::string> kinds; /* of its findings */
	};

	/* Returns what the request comes to. REQUIRES: the transaction is free of secrets and has its
	 * name. */
	Recorded record(const Transaction &transaction);

private:
	Store &store_;
	ForkLookup &forks_;
	ServingLookup serving_;
	Compressor compressor_;
};

} // namespace kaq
