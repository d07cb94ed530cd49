# shellcheck shell=bash disable=SC2119,SC2120 # arguments are optional here
# What engines there are, and where an engine's parts stand. An engine is named
# by the path of its php-config. Source log.sh first.

KAQ_ENGINES="$KAQ_CACHE/engines"
KAQ_DEBIAN_PHP_CONFIG=/usr/bin/php-config8.2
# Those that the tests run on by themselves. Any other has to be named.
KAQ_TESTED_ENGINES=(7.0-zts 7.4-zts 8.2-debian)

# kaq_engine_configs [PHP_CONFIG...]: the given ones if any; else all known,
# one a line: the oldest below the cache first, Debian's last. Builds under a
# sanitizer are run on request only and stand not in the list.
kaq_engine_configs() {
	local config
	if (($# > 0)); then
		printf '%s\n' "$@"
		return 0
	fi
	for config in "$KAQ_ENGINES"/*/bin/php-config; do
		if [[ -x $config && $config != *-asan/bin/php-config ]] && kaq_engine_finished "$config"; then
			printf '%s\n' "$config"
		fi
	done | sort -V
	if [[ -x $KAQ_DEBIAN_PHP_CONFIG ]]; then
		printf '%s\n' "$KAQ_DEBIAN_PHP_CONFIG"
	fi
}

# kaq_engine_finished PHP_CONFIG: false while script/engine is still at it.
kaq_engine_finished() {
	local prefix
	prefix=$(dirname "$(dirname "$1")")
	case $(basename "$prefix") in
	php-7.4-zts | php-7.4-zts-asan) [[ -e $prefix/.kaq-finished ]] ;;
	*) true ;;
	esac
}

# kaq_default_php_config: php-config on PATH, else the first engine known.
kaq_default_php_config() {
	command -v php-config || kaq_engine_configs | head -n 1
}

# kaq_absolute_config PHP_CONFIG: its absolute path, links kept, from a path or
# a name on PATH; false if there is none.
kaq_absolute_config() {
	local path
	path=$(command -v "$1") && realpath -s "$path"
}

# kaq_engine_is_zts PHP_CONFIG
kaq_engine_is_zts() {
	grep -q '^#define ZTS 1' "$("$1" --include-dir)/main/php_config.h"
}

# kaq_engine_is_asan PHP_CONFIG
kaq_engine_is_asan() {
	grep -q __asan_init "$("$1" --php-binary)" 2>/dev/null
}

# kaq_engine_key PHP_CONFIG: a name that is fit for a directory and differs
# for each engine: "7.4-zts" below the cache, "8.2-debian" for Debian's, else
# the version, the thread-safety and a hash of the path.
kaq_engine_key() {
	local path version kind=nts
	path=$(readlink -f "$1")
	version=$("$1" --version | cut -d. -f1-2)
	case $path in
	"$(readlink -f "$KAQ_ENGINES" 2>/dev/null)"/*/bin/php-config)
		path=$(dirname "$(dirname "$path")")
		path=$(basename "$path")
		printf '%s\n' "${path#php-}"
		;;
	/usr/bin/php-config*)
		printf '%s-debian\n' "$version"
		;;
	*)
		if kaq_engine_is_zts "$1"; then
			kind=zts
		fi
		printf '%s-%s-%s\n' "$version" "$kind" "$(printf '%s' "$path" | sha1sum | cut -c1-8)"
		;;
	esac
}

# kaq_config_of KEY: the php-config of a known engine.
kaq_config_of() {
	local config
	while read -r config; do
		if [[ "$(kaq_engine_key "$config")" == "$1" ]]; then
			printf '%s\n' "$config"
			return 0
		fi
	done < <(kaq_engine_configs)
	kaq_die "no engine is called $1; 'script/engine list' shows those that are installed"
}

# kaq_first_existing PATH...: prints the first that is there, or nothing.
kaq_first_existing() {
	local path
	for path in "$@"; do
		if [[ -e $path ]]; then
			printf '%s\n' "$path"
			return 0
		fi
	done
}

# kaq_engine_binary PHP_CONFIG php|php-cgi|php-fpm: prints the path, or nothing.
kaq_engine_binary() {
	local prefix version
	prefix=$("$1" --prefix)
	version=$("$1" --version | cut -d. -f1-2)
	kaq_first_existing "$prefix/bin/$2$version" "$prefix/sbin/$2$version" \
		"$prefix/bin/$2" "$prefix/sbin/$2"
}

# kaq_engine_embed PHP_CONFIG: prints the path of the embed library, or nothing.
kaq_engine_embed() {
	local prefix version
	prefix=$("$1" --prefix)
	version=$("$1" --version | cut -d. -f1-2)
	kaq_first_existing "$prefix/lib/libphp$version.so" "$prefix/lib/libphp${version%%.*}.so" \
		"$prefix/lib/libphp.so"
}

# kaq_engine_run_tests PHP_CONFIG: prints the path of run-tests.php, or nothing.
kaq_engine_run_tests() {
	local prefix
	prefix=$("$1" --prefix)
	kaq_first_existing "$prefix/lib/php/build/run-tests.php" \
		"$("$1" --extension-dir)/build/run-tests.php"
}

# kaq_list_engines [PHP_CONFIG...]: a table for a person.
kaq_list_engines() {
	local config key kind note
	while read -r config; do
		key=$(kaq_engine_key "$config")
		kind=nts
		if kaq_engine_is_zts "$config"; then
			kind=zts
		fi
		note='  (tested when named)'
		if [[ " ${KAQ_TESTED_ENGINES[*]} " == *" $key "* ]]; then
			note=
		fi
		printf '%-16s %-10s %-4s %s%s\n' "$key" "$("$config" --version)" "$kind" "$config" "$note"
	done < <(kaq_engine_configs "$@")
}
