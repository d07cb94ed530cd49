# shellcheck shell=bash
# Drivers that an engine of our own lacks, built from the release tarballs in
# Debian's source packages. Source log.sh, engines.sh and engine_source.sh first.

KAQ_DRIVERS="$KAQ_CACHE/drivers"

# kaq_driver_recipes: a driver a line: module, source package, suite, the
# release's directory in the tarball, options of configure.
kaq_driver_recipes() {
	cat <<'TEXT'
redis|php-redis|bookworm|redis-5.*|
memcached|php-memcached|trixie|memcached-3.*|--disable-memcached-sasl
memcache|php-memcache|trixie|memcache-8.*|--disable-memcache-session
TEXT
}

# kaq_sources_of_suite DIRECTORY URI SUITE: a private apt state that knows the
# suite's source packages.
kaq_sources_of_suite() {
	local directory=$1 uri=$2 suite=$3
	local keyring=/usr/share/keyrings/debian-archive-keyring.gpg
	mkdir -p "$directory/lists/partial" "$directory/archives/partial" "$directory/files"
	printf 'deb-src [signed-by=%s] %s %s main\n' "$keyring" "$uri" "$suite" >"$directory/sources.list"
	kaq_apt_private "$directory" update
}

# kaq_download_tarball DIRECTORY PACKAGE: leaves the package's release tarball
# in DIRECTORY/files and its path in DIRECTORY/PACKAGE.path. A mirror may have
# dropped the package's other files; the signed index vouches for this one.
kaq_download_tarball() {
	local directory=$1 package=$2 name sum
	cd "$directory/files" || return 1
	read -r name sum < <(kaq_apt_private "$directory" source --print-uris --only-source "$package" |
		sed -nE "s/^'[^']+' ([^ ]+\.orig\.tar\.[a-z0-9]+) [0-9]+ SHA256:([0-9a-f]{64})$/\1 \2/p") || return 1
	kaq_apt_private "$directory" source --download-only --only-source "$package" || true
	printf '%s  %s\n' "$sum" "$name" | sha256sum --check || return 1
	printf '%s\n' "$directory/files/$name" >"$directory/$package.path"
}

# kaq_fetch_driver_source MODULE PACKAGE SUITE PATTERN LOG: leaves the unpacked
# release in the cache's sources/MODULE. Returns false if no mirror has it.
kaq_fetch_driver_source() {
	local module=$1 package=$2 suite=$3 pattern=$4 log=$5 uri
	local source="$KAQ_CACHE/sources/driver-$1" download="$KAQ_CACHE/sources/.download-$1"
	if [[ -e $source/config.m4 ]]; then
		return 0
	fi
	kaq_log "driver $module: fetching $package of Debian $suite"
	while read -r uri; do
		rm -rf "$download"
		# shellcheck disable=SC2086 # the pattern is to be expanded
		if (kaq_sources_of_suite "$download" "$uri" "$suite" &&
			kaq_download_tarball "$download" "$package" &&
			mkdir "$download/unpacked" &&
			tar -C "$download/unpacked" -xf "$(<"$download/$package.path")" &&
			rm -rf "$source" &&
			mv "$download/unpacked"/$pattern "$source") >>"$log" 2>&1 </dev/null; then
			rm -rf "$download"
			return 0
		fi
	done < <(kaq_debian_mirrors '')
	rm -rf "$download"
	return 1
}

# kaq_make_driver CONFIG MODULE BUILD OPTION...: compiles the release in BUILD.
kaq_make_driver() {
	local config=$1 module=$2 build=$3 phpize
	shift 3
	phpize="$(dirname "$config")/$(basename "$config" | sed 's/php-config/phpize/')"
	rm -rf "$build"
	mkdir -p "$(dirname "$build")"
	cp -R "$KAQ_CACHE/sources/driver-$module" "$build" || return 1
	cd "$build" || return 1
	"$phpize" && ./configure --with-php-config="$config" "$@" CFLAGS='-O1 -g -w' &&
		make -j"$(nproc)" && [[ -e modules/$module.so ]]
}

# kaq_build_driver CONFIG KEY RECIPE: leaves MODULE.so in the engine's driver
# directory, or MODULE.missing, whose line says why there is none. A finished
# one is kept, and a failed build not repeated; what could not be fetched is
# tried again.
kaq_build_driver() {
	local config=$1 key=$2 module package suite pattern options stamp
	local directory="$KAQ_DRIVERS/$2"
	IFS='|' read -r module package suite pattern options <<<"$3"
	local log="$KAQ_LOGS/driver-$module-$key.log"
	stamp=$(
		printf '%s\n' "$3"
		"$config" --version
		"$config" --configure-options
	)
	mkdir -p "$directory" "$KAQ_LOGS"
	if [[ $(cat "$directory/$module.stamp" 2>/dev/null) == "$stamp" ]]; then
		return 0
	fi
	rm -f "$directory/$module".{so,stamp,missing}
	: >"$log"
	if ! kaq_fetch_driver_source "$module" "$package" "$suite" "$pattern" "$log"; then
		echo "the source package $package of Debian $suite is not to be had" >"$directory/$module.missing"
	else
		kaq_log "driver $module for $key: building"
		# shellcheck disable=SC2086 # options are words
		if (kaq_make_driver "$config" "$module" "$directory/build-$module" $options) >>"$log" 2>&1 </dev/null; then
			cp "$directory/build-$module/modules/$module.so" "$directory/$module.so"
		else
			echo "$package of Debian $suite does not build for $key" >"$directory/$module.missing"
		fi
		printf '%s\n' "$stamp" >"$directory/$module.stamp"
		rm -rf "$directory/build-$module"
	fi
	if [[ -e $directory/$module.missing ]]; then
		kaq_log "driver $module: $(<"$directory/$module.missing") (full log: $log)"
	fi
}
