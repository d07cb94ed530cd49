#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <exception>

#include "cli/daemon.h"
#include "cli/descriptors.h"
#include "cli/verbs.h"

namespace kaq {
namespace {

/* Before any thread is made, so that all of them leave these to the one that waits for them. */
void block_signals() {
	sigset_t set;
	sigemptyset(&set);
	for (int each : {SIGTERM, SIGINT, SIGHUP}) {
		sigaddset(&set, each);
	}
	pthread_sigmask(SIG_BLOCK, &set, nullptr);
	signal(SIGPIPE, SIG_IGN);
}

} // namespace

int collect(const CollectOptions &options) {
	/* What visitors did is nobody else's business. */
	umask(0077);
	block_signals();
	try {
		ConnectionLimits limits = connection_limits(raise_descriptor_limit());
		Daemon(options, effective_configuration(options), limits).run();
		return 0;
	} catch (const std::exception &error) {
		fprintf(stderr, "kaq: %s\n", error.what());
		return 1;
	}
}

} // namespace kaq
