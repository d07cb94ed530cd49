# shellcheck shell=bash
# Installs what is missing from the distribution. Source log.sh first.

# shellcheck disable=SC2034 # for those who source it
# What the collector is built from.
KAQ_COLLECTOR_LIBRARIES=(libboost-dev libcli11-dev libcurl4-openssl-dev libexpected-dev libfmt-dev
	libprotozero-dev libsimdjson-dev libspdlog-dev libsqlitecpp-dev libsystemd-dev libtomlplusplus-dev
	libxxhash-dev libzstd-dev nlohmann-json3-dev prometheus-cpp-dev zlib1g-dev)
# shellcheck disable=SC2034
# What its pages are made with. Where Node comes from elsewhere, npm comes with it.
KAQ_VIEWER_TOOLS=(nodejs)
command -v npm >/dev/null || KAQ_VIEWER_TOOLS+=(npm)

# kaq_missing_packages PACKAGE...: prints those that are not installed.
kaq_missing_packages() {
	local package
	for package in "$@"; do
		# shellcheck disable=SC2016 # the format is dpkg's, not the shell's
		if [[ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]]; then
			printf '%s\n' "$package"
		fi
	done
}

# kaq_apt ARGUMENT...: apt-get that never asks, as root or through sudo.
kaq_apt() {
	local -a command=(env DEBIAN_FRONTEND=noninteractive NEEDRESTART_MODE=l apt-get -q -y
		-o Dpkg::Options::=--force-confold -o Dpkg::Use-Pty=0
		-o Acquire::Retries=3 -o DPkg::Lock::Timeout=300)
	if [[ $(id -u) -ne 0 ]]; then
		command=(sudo -n "${command[@]}")
	fi
	"${command[@]}" "$@"
}

# kaq_need_packages PACKAGE...: installs those that are missing; nothing is
# downloaded when all are there. The package lists are fetched at most once in
# a script's life. Ends the script, saying why, when it cannot.
kaq_need_packages() {
	local log="$KAQ_LOGS/packages.log"
	local -a missing
	command -v dpkg-query >/dev/null ||
		kaq_die "these packages are needed and this is no Debian system to install them on: $*"
	mapfile -t missing < <(kaq_missing_packages "$@")
	((${#missing[@]} > 0)) || return 0
	if [[ $(id -u) -ne 0 ]] && ! sudo -n true 2>/dev/null; then
		kaq_die "needs root or password-less sudo to install: ${missing[*]}"
	fi
	mkdir -p "$KAQ_LOGS"
	# One at a time: apt waits for others when it installs, but not when it fetches.
	# A service that a package starts must not have the lock.
	exec 8>"$KAQ_CACHE/packages.lock"
	flock 8
	if [[ -z ${KAQ_PACKAGES_UPDATED:-} ]]; then
		kaq_log "packages: fetching the lists"
		: >"$log"
		# One unreachable extra source must not stop what the others can give.
		kaq_apt update >>"$log" 2>&1 </dev/null || kaq_log "packages: some lists could not be fetched ($log)"
		export KAQ_PACKAGES_UPDATED=1
	fi
	kaq_log "packages: installing ${missing[*]}"
	kaq_run "$log" kaq_apt install --no-install-recommends "${missing[@]}" 8>&- ||
		kaq_die "could not install ${missing[*]} (full log: $log)"
	exec 8>&-
	kaq_log "packages: done"
}

# kaq_need_server_packages PACKAGE...: the same for packages that would start a
# service of the machine when they are installed: it stays down. A machine that
# has a policy of its own for that keeps it.
kaq_need_server_packages() {
	local policy=/usr/sbin/policy-rc.d
	local -a missing as_root=()
	mapfile -t missing < <(kaq_missing_packages "$@")
	((${#missing[@]} > 0)) || return 0
	if [[ -e $policy ]]; then
		kaq_need_packages "${missing[@]}"
		return 0
	fi
	[[ $(id -u) -eq 0 ]] || as_root=(sudo -n)
	(
		trap '"${as_root[@]}" rm -f "$policy"' EXIT
		printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
		"${as_root[@]}" chmod 755 "$policy"
		kaq_need_packages "${missing[@]}"
	)
}
