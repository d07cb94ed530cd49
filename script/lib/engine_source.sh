# shellcheck shell=bash
# The PHP 7.4 source package of Debian bullseye, fetched from the mirror that
# this machine's apt already uses. Source log.sh first.
#
# The machine's own apt state is not touched: lists and downloads live below
# the cache directory, and only the archive keyring's signatures are accepted.

KAQ_SOURCE_74="$KAQ_CACHE/sources/php-7.4"

# kaq_debian_mirrors SUFFIX: prints the URIs from which apt is configured to
# take this release's suite, SUFFIX being "" or "-security". Another vendor's
# that serves a suite of that name is refused later, by its signature.
kaq_debian_mirrors() {
	local suffix=$1 codename
	codename=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
	if [[ -z $suffix && -n ${KAQ_DEBIAN_MIRROR:-} ]]; then
		printf '%s\n' "$KAQ_DEBIAN_MIRROR"
	fi
	# Unlike indextargets this tells them before the first update, too.
	apt-get --print-uris update |
		sed -nE "s,^'([^']+)/dists/($codename|stable|oldstable)$suffix/InRelease' .*,\1,p" | awk '!seen[$0]++'
}

# kaq_apt_private DIRECTORY ARGUMENT...: apt-get with its own lists and cache.
kaq_apt_private() {
	local directory=$1
	local -a sandbox=()
	shift
	if [[ $(id -u) -eq 0 ]]; then
		sandbox=(-o APT::Sandbox::User=root)
	fi
	apt-get -q "${sandbox[@]}" \
		-o Dir::Etc::sourcelist="$directory/sources.list" -o Dir::Etc::sourceparts=/dev/null \
		-o Dir::State::lists="$directory/lists" -o Dir::Cache="$directory" \
		-o APT::Update::Error-Mode=any -o Acquire::Retries=3 "$@"
}

# kaq_download_suite DIRECTORY LOG URI SUITE: fetches php7.4's source files of
# one suite into DIRECTORY/files. Fails if the suite or a file is not there.
kaq_download_suite() {
	local directory=$1 log=$2 uri=$3 suite=$4
	local keyring=/usr/share/keyrings/debian-archive-keyring.gpg
	rm -rf "$directory"
	mkdir -p "$directory/lists/partial" "$directory/archives/partial" "$directory/files"
	printf 'deb-src [signed-by=%s] %s %s main\n' "$keyring" "$uri" "$suite" >"$directory/sources.list"
	{
		printf '== %s\n' "$suite"
		kaq_apt_private "$directory" update &&
			cd "$directory/files" &&
			kaq_apt_private "$directory" source --download-only --only-source php7.4 &&
			ls ./*.dsc
	} >>"$log" 2>&1 </dev/null
}

# kaq_download_source DIRECTORY LOG: tries the suites in turn. The release
# tarball inside is the same in all of them.
kaq_download_source() {
	local directory=$1 log=$2 uri suite tried=0
	while IFS='|' read -r uri suite; do
		tried=$((tried + 1))
		kaq_log "  trying suite $suite"
		if (kaq_download_suite "$directory" "$log" "$uri" "$suite"); then
			return 0
		fi
	done < <(
		kaq_debian_mirrors '' | sed 's/$/|bullseye/'
		kaq_debian_mirrors -security | sed 's/$/|bullseye-security/'
	)
	if ((tried == 0)); then
		kaq_die "apt's sources name no Debian mirror; set KAQ_DEBIAN_MIRROR to the URI of one"
	fi
	tail -n 15 "$log" >&2
	kaq_die "no mirror gives the source package php7.4 of Debian bullseye (full log: $log)"
}

# kaq_fetch_source_74 LOG: leaves the unpacked source, with its tests, in
# KAQ_SOURCE_74. Debian's patches stay off: the release tarball comes with its
# configure script and parsers made, and patching would have them made again.
kaq_fetch_source_74() {
	local log=$1 download="$KAQ_CACHE/sources/.download" unpacked="$KAQ_SOURCE_74.new"
	if [[ -e $KAQ_SOURCE_74/.kaq-unpacked ]]; then
		kaq_log "  the source is there already"
		return 0
	fi
	mkdir -p "$KAQ_CACHE/sources"
	kaq_download_source "$download" "$log"
	rm -rf "$unpacked" "$KAQ_SOURCE_74"
	kaq_run "$log" dpkg-source --skip-patches -x "$download"/files/php7.4_*.dsc "$unpacked" ||
		kaq_die "could not unpack the source package (full log: $log)"
	touch "$unpacked/.kaq-unpacked"
	mv "$unpacked" "$KAQ_SOURCE_74"
	rm -rf "$download"
}
