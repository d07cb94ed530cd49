# shellcheck shell=bash
# Debian's packages, unpacked below the cache without being installed. Source log.sh and
# packages.sh first.

# kaq_unpack_package DIRECTORY PACKAGE: leaves what the package holds in DIRECTORY/PACKAGE, which is
# kept. False if apt does not know it or cannot fetch it.
kaq_unpack_package() {
	local directory=$1 package=$2 log="$KAQ_LOGS/packages.log" new="$1/.new-$2"
	if [[ -d $directory/$package ]]; then
		return 0
	fi
	mkdir -p "$directory" "$KAQ_LOGS"
	rm -rf "$new"
	mkdir "$new"
	(
		cd "$new" &&
			kaq_download_package "$package" &&
			dpkg-deb -x ./*.deb unpacked &&
			mv unpacked "$directory/$package"
	) >>"$log" 2>&1 </dev/null || {
		rm -rf "$new"
		return 1
	}
	rm -rf "$new"
}

# kaq_download_package PACKAGE: the package's file, in the current directory. The lists are fetched
# if the package is not known without.
kaq_download_package() {
	local -a sandbox=()
	if [[ $(id -u) -eq 0 ]]; then
		sandbox=(-o APT::Sandbox::User=root)
	fi
	if ! apt-cache show --no-all-versions "$1" | grep -q '^Filename:' &&
		[[ -z ${KAQ_PACKAGES_UPDATED:-} ]]; then
		kaq_apt update || true
		export KAQ_PACKAGES_UPDATED=1
	fi
	apt-get -q "${sandbox[@]}" -o Acquire::Retries=3 download "$1"
}

# kaq_download_closure DIRECTORY PACKAGE...: the files of packages, and of those that they depend on
# and that are not installed. What is there already is not fetched again.
kaq_download_closure() {
	local directory=$1 log="$KAQ_LOGS/packages.log"
	local -a command=(apt-get -q -y -o Debug::NoLocking=true -o Acquire::Retries=3
		-o "Dir::Cache::archives=$directory" --no-install-recommends --reinstall --download-only)
	shift
	if [[ $(id -u) -eq 0 ]]; then
		command+=(-o APT::Sandbox::User=root)
	fi
	mkdir -p "$directory/partial" "$KAQ_LOGS"
	kaq_log 'packages: downloading what is not there'
	if ! "${command[@]}" install "$@" >>"$log" 2>&1 </dev/null; then
		# A package that was replaced meanwhile is found once the lists are new.
		kaq_apt update >>"$log" 2>&1 </dev/null || true
		kaq_run "$log" "${command[@]}" install "$@" ||
			kaq_die "could not download $* (full log: $log)"
	fi
	# Files of versions that were replaced.
	apt-get -q -o Debug::NoLocking=true -o "Dir::Cache::archives=$directory" autoclean >>"$log" 2>&1 || true
}
