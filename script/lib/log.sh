# shellcheck shell=bash
# Progress lines, logged commands and the cache directory, for every script here.
# Source it after `set -euo pipefail`. Everything it prints goes to standard error.

KAQ_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
if [[ -z ${XDG_CACHE_HOME:-} && -z ${HOME:-} ]]; then
	HOME=$(getent passwd "$(id -u)" | cut -d: -f6)
	export HOME
fi
KAQ_CACHE="${XDG_CACHE_HOME:-$HOME/.cache}/kaq"
mkdir -p "$KAQ_CACHE" 2>/dev/null || {
	printf '%s: %s cannot be written; XDG_CACHE_HOME names another directory\n' \
		"$(basename "$0")" "$KAQ_CACHE" >&2
	exit 1
}
KAQ_LOGS="$KAQ_CACHE/logs"
KAQ_BEGAN=${KAQ_BEGAN:-$EPOCHSECONDS}
export KAQ_ROOT KAQ_CACHE KAQ_LOGS KAQ_BEGAN

# kaq_elapsed SECONDS: prints "1m05s" or "7s".
kaq_elapsed() {
	local seconds=$1
	if ((seconds >= 60)); then
		printf '%dm%02ds' $((seconds / 60)) $((seconds % 60))
	else
		printf '%ds' "$seconds"
	fi
}

# kaq_log TEXT...: one progress line, with the time since the script began, or the
# one that started it.
kaq_log() {
	printf '[%6s] %s\n' "$(kaq_elapsed $((EPOCHSECONDS - KAQ_BEGAN)))" "$*" >&2
}

# kaq_die TEXT...: says why and ends the script.
kaq_die() {
	printf '%s: %s\n' "$(basename "$0")" "$*" >&2
	exit 1
}

# kaq_run LOG COMMAND...: runs the command with its output appended to LOG and
# nothing on its standard input. On failure shows the end of LOG and where it
# is, and returns the command's status.
kaq_run() {
	local log=$1 status=0
	shift
	mkdir -p "$(dirname "$log")"
	"$@" >>"$log" 2>&1 </dev/null || status=$?
	if ((status != 0)); then
		printf '%s\n' "--- last lines of $log" >&2
		tail -n 25 "$log" >&2
		printf '%s\n' "--- failed with status $status: $*" >&2
	fi
	return "$status"
}
