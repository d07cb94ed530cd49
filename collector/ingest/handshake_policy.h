/* Decides what a handshake is answered. */
#pragma once

#include "ingest/handshake_answer.h"
#include "ingest/handshake_request.h"

namespace kaq {

/* Called on one thread, which a PHP request waits for: without locks and files. */
class HandshakePolicy {
public:
	virtual ~HandshakePolicy() = default;
	virtual HandshakeAnswer answer(const HandshakeRequest &request) = 0;
	/* Several times a second. */
	virtual void on_tick() {
	}
};

} // namespace kaq
