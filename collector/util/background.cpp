#include "util/background.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

namespace kaq {
namespace {

/* A third of the share of who is not nice. */
constexpr int kNicer = 5;

} // namespace

void work_in_background(const char *name) {
	pthread_setname_np(pthread_self(), name);
	auto thread = static_cast<id_t>(gettid());
	errno = 0;
	int now = getpriority(PRIO_PROCESS, thread);
	if (errno == 0) {
		setpriority(PRIO_PROCESS, thread, now + kNicer);
	}
}

} // namespace kaq
