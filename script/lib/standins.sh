# shellcheck shell=bash
# Builds the stand-in drivers of tests/drivers for an engine. Source log.sh and
# engines.sh first.

# kaq_build_standins PHP_CONFIG: builds them if need be, outside the checkout,
# and prints the path of the module; progress goes to a log.
kaq_build_standins() {
	local config=$1 key build log from="$KAQ_ROOT/tests/drivers" wanted fd name flags='-O1 -g'
	key=$(kaq_engine_key "$config")
	build="$KAQ_CACHE/build/standins-$key"
	log="$KAQ_LOGS/build-standins-$key.log"
	mkdir -p "$build" "$KAQ_LOGS"
	exec {fd}>"$build.lock"
	flock "$fd"
	wanted=$({ "$config" --version; "$config" --configure-options; cat "$from"/*; } | sha1sum)
	if [[ ! -e $build/.recipe || $(<"$build/.recipe") != "$wanted" ]]; then
		if kaq_engine_is_asan "$config"; then
			flags+=' -fsanitize=address -fno-omit-frame-pointer'
		fi
		rm -rf "$build"
		mkdir -p "$build"
		cp "$from"/config.m4 "$from"/*.cpp "$from"/*.h "$build/"
		name=$(basename "$config")
		: >"$log"
		(
			cd "$build"
			kaq_run "$log" "$(dirname "$config")/${name/php-config/phpize}" &&
				kaq_run "$log" env ASAN_OPTIONS=detect_leaks=0 ./configure --with-php-config="$config" \
					CFLAGS="$flags" CXXFLAGS="$flags -Werror" &&
				kaq_run "$log" make -j"$(nproc)"
		) || return 1
		printf '%s\n' "$wanted" >"$build/.recipe"
	fi
	exec {fd}>&-
	printf '%s\n' "$build/modules/kaq_standins.so"
}
