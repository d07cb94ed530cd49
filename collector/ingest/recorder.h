/* From a request that has arrived to what the store keeps of it. One thread at a time. */
#pragma once

#include "ingest/serving.h"
#include "model/transaction.h"
#include "store/store.h"
#include "util/compression.h"

namespace kaq {

class Recorder {
public:
	/* REQUIRES: the store outlives the recorder. */
	explicit Recorder(Store &store) : store_(store) {
	}

	/* Returns what the request comes to. REQUIRES: the transaction is free of secrets and has its
	struct Recorded {
		Summary summary;
		std::vector<std::string> kinds; /* of its findings */
	};

	 * name. */
	Recorded record(const Transaction &transaction);

private:
	Store &store_;
	ServingLookup serving_;
	Compressor compressor_;
};

} // namespace kaq
