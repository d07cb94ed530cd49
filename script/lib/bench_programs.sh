# shellcheck shell=bash
# Builds what the benchmarks need besides the extension. Source log.sh first, and set LOG.

KAQ_PROBE_CLOCK=("$KAQ_ROOT"/extension/util/kaq_clock.{h,cpp})

# kaq_is_newer TARGET SOURCE...: true when TARGET exists and no source is newer.
kaq_is_newer() {
	local target=$1 source
	shift
	[[ -e $target ]] || return 1
	for source in "$@"; do
		[[ ! $source -nt $target ]] || return 1
	done
}

# kaq_build_program NAME OUT: a program of the benchmarks, such as their collector.
kaq_build_program() {
	if ! kaq_is_newer "$2" "$KAQ_ROOT/bench/$1.cpp" "$KAQ_ROOT"/bench/probes/*.h; then
		kaq_run "$LOG" g++ -std=gnu++17 -O2 -Wall -Wextra "$KAQ_ROOT/bench/$1.cpp" -o "$2"
	fi
}

# kaq_build_probe CONFIG DIRECTORY: the plain hooks and functions, as an extension of their own. One
# of the hooks reads the extension's clock.
kaq_build_probe() {
	local config=$1 build=$2 phpize
	if kaq_is_newer "$build/modules/probe.so" "$KAQ_ROOT"/bench/probes/* "${KAQ_PROBE_CLOCK[@]}" "$config"; then
		return 0
	fi
	phpize=$(basename "$config")
	rm -rf "$build"
	mkdir -p "$build/util"
	cp "$KAQ_ROOT"/bench/probes/* "$build/"
	cp "${KAQ_PROBE_CLOCK[@]}" "$build/util/"
	(
		cd "$build" &&
			kaq_run "$LOG" "$(dirname "$config")/${phpize/php-config/phpize}" &&
			kaq_run "$LOG" ./configure --with-php-config="$config" CXXFLAGS='-O2 -g' &&
			kaq_run "$LOG" make
	)
}
