# shellcheck shell=bash
# The suites that script/test runs. Source log.sh, engines.sh, standins.sh and
# report.sh first, and set KAQ_RUN to a directory of this run's own: runs at the same
# time share only what is compiled, under a lock. Each function runs one suite,
# reports it and returns true; nothing is written in the checkout.

# kaq_locked NAME COMMAND...: one at a time in all runs.
kaq_locked() {
	local lock="$KAQ_CACHE/build/$1.lock" fd status=0
	shift
	exec {fd}>"$lock"
	flock "$fd"
	"$@" || status=$?
	exec {fd}>&-
	return "$status"
}

# kaq_bounded SECONDS COMMAND...: ends what takes too long, first gently.
kaq_bounded() {
	timeout --kill-after=20 "$@"
}

kaq_suite_check() {
	local log="$KAQ_LOGS/check.log" begin=$SECONDS status=0
	kaq_bounded 1200 "$KAQ_ROOT/script/check" >"$KAQ_RUN/check" 2>"$log" </dev/null || status=$?
	cat "$KAQ_RUN/check" >>"$log"
	kaq_report check $((SECONDS - begin)) "$log" "$status" check "$KAQ_RUN/check"
}

# kaq_build_for_suites CONFIG KEY SO: the engine, if it is one that we build, and
# the extension without a warning, copied to SO: a build at the same time must
# not change what the suites have loaded. False if that fails.
kaq_build_for_suites() {
	local config=$1 key=$2 so=$3 begin=$SECONDS built
	case $key in
	7.4-zts | 7.4-zts-asan)
		if ! "$KAQ_ROOT/script/engine" "$key" </dev/null; then
			kaq_report_broken "engine $key" $((SECONDS - begin)) "$KAQ_LOGS/engine-$key.log" 'could not be built'
			return 1
		fi
		;;
	esac
	begin=$SECONDS
	if ! built=$(KAQ_WERROR=1 kaq_bounded 900 "$KAQ_ROOT/script/build" --php-config "$config" </dev/null); then
		kaq_report_broken "build $key" $((SECONDS - begin)) "$KAQ_LOGS/build-$key-werror.log" 'does not build'
		return 1
	fi
	mkdir -p "$(dirname "$so")"
	cp "$built" "$so" && kaq_report_line ok "build $key" 1 0 0 $((SECONDS - begin))
}

# kaq_cmake SOURCE BUILD LOG OPTION...: configures and builds.
kaq_cmake() {
	local source=$1 build=$2 log=$3
	shift 3
	kaq_forget_other_checkout "$build"
	{
		cmake -S "$source" -B "$build" -DKAQ_WERROR=ON "$@" &&
			kaq_bounded 1800 cmake --build "$build" -j "$(nproc)"
	} >>"$log" 2>&1 </dev/null
}

# kaq_ctest NAME BUILD LOG SECONDS BEGIN: runs a build's tests and reports them.
kaq_ctest() {
	local name=$1 build=$2 log=$3 limit=$4 begin=$5 status=0
	rm -f "$build/results.xml"
	(
		cd "$build" &&
			kaq_bounded "$limit" ctest --output-on-failure --no-tests=error --timeout 120 \
				-j "$(nproc)" --output-junit "$build/results.xml"
	) >>"$log" 2>&1 </dev/null || status=$?
	kaq_report "$name" $((SECONDS - begin)) "$log" "$status" junit "$build/results.xml"
}

# The PHP-free units under g++ with sanitizers; and once more compiled by
# clang++, for its warnings.
kaq_suite_unit() {
	local build="$KAQ_CACHE/build/unit" log="$KAQ_LOGS/unit.log" begin=$SECONDS
	: >"$log"
	if ! kaq_cmake "$KAQ_ROOT" "$build-gcc" "$log" -DCMAKE_CXX_COMPILER=g++; then
		kaq_report_broken unit $((SECONDS - begin)) "$log" 'does not compile with g++'
		return 0
	fi
	kaq_ctest unit "$build-gcc" "$log" 600 "$begin"
	begin=$SECONDS
	log="$KAQ_LOGS/unit-clang.log"
	: >"$log"
	if kaq_cmake "$KAQ_ROOT" "$build-clang" "$log" -DCMAKE_CXX_COMPILER=clang++; then
		kaq_report_line ok unit-clang 1 0 0 $((SECONDS - begin))
	else
		kaq_report_broken unit-clang $((SECONDS - begin)) "$log" 'does not compile with clang++'
	fi
}

# kaq_collector_cmake COMPILER LOG: the collector and its unit tests; by g++ with sanitizers, which
# take five times as long at -O2. Only clang++ sees whether each source includes what it needs.
kaq_collector_cmake() {
	local sanitize=OFF flags=-O0
	if [[ $1 == g++ ]]; then
		sanitize=ON flags='-Og -g1'
	fi
	kaq_cmake "$KAQ_ROOT" "$KAQ_CACHE/build/collector-$1" "$2" -DCMAKE_CXX_COMPILER="$1" \
		-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="$flags" -DKAQ_UNIT=OFF \
		-DKAQ_COLLECTOR=ON -DKAQ_COLLECTOR_TESTS=ON -DKAQ_COLLECTOR_SANITIZE="$sanitize" \
		-DKAQ_PRECOMPILE="$sanitize"
}

# The collector's rooms under g++ with sanitizers; and once more compiled by clang++, for its
# warnings.
kaq_suite_collector() {
	local log="$KAQ_LOGS/collector.log" begin=$SECONDS
	: >"$log"
	if ! kaq_collector_cmake g++ "$log"; then
		kaq_report_broken collector $((SECONDS - begin)) "$log" 'does not compile with g++'
		return 0
	fi
	kaq_ctest collector "$KAQ_CACHE/build/collector-g++" "$log" 600 "$begin"
	begin=$SECONDS
	log="$KAQ_LOGS/collector-clang.log"
	: >"$log"
	if kaq_collector_cmake clang++ "$log"; then
		kaq_report_line ok collector-clang 1 0 0 $((SECONDS - begin))
	else
		kaq_report_broken collector-clang $((SECONDS - begin)) "$log" 'does not compile with clang++'
	fi
}

# Each fuzzer from its seeds for a few seconds; a finding fails it.
kaq_suite_fuzz() {
	local build="$KAQ_CACHE/build/fuzz" log="$KAQ_LOGS/fuzz.log" begin=$SECONDS
	local fuzzer name passed=0
	local -a failed=()
	: >"$log"
	if ! kaq_cmake "$KAQ_ROOT" "$build" "$log" -DCMAKE_CXX_COMPILER=clang++ -DKAQ_FUZZ=ON -DKAQ_UNIT=OFF; then
		kaq_report_broken fuzz $((SECONDS - begin)) "$log" 'the fuzzers do not compile'
		return 0
	fi
	for fuzzer in "$build"/tests/{extension,collector}/fuzz/*; do
		if [[ ! -f $fuzzer || ! -x $fuzzer ]]; then
			continue
		fi
		name=$(basename "$fuzzer")
		if kaq_fuzz_one "$fuzzer" "$build/found/$name" >>"$log" 2>&1 </dev/null; then
			passed=$((passed + 1))
		else
			failed+=("$name")
		fi
	done
	if ((passed + ${#failed[@]} == 0)); then
		kaq_report_broken fuzz $((SECONDS - begin)) "$log" 'there is no fuzzer'
	elif ((${#failed[@]} > 0)); then
		kaq_report_line FAIL fuzz "$passed" "${#failed[@]}" 0 $((SECONDS - begin))
		printf '      failed: %s\n' "${failed[@]}"
		kaq_report_tail "$log"
	else
		kaq_report_line ok fuzz "$passed" 0 0 $((SECONDS - begin))
	fi
}

# kaq_fuzz_one FUZZER FOUND: what it finds is kept in FOUND, not among the
# seeds, which bear its name without "_fuzz".
kaq_fuzz_one() {
	local fuzzer=$1 found=$2 name seeds
	name=$(basename "$fuzzer")
	mkdir -p "$found/corpus"
	seeds=$(kaq_first_existing "$KAQ_ROOT/tests/extension/fuzz/corpus/${name%_fuzz}" \
		"$KAQ_ROOT/tests/collector/fuzz/corpus/${name%_fuzz}")
	echo "== $name"
	kaq_bounded 120 "$fuzzer" -max_total_time="${KAQ_FUZZ_SECONDS:-5}" -timeout=10 \
		-rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$found/" \
		"$found/corpus" ${seeds:+"$seeds"}
}

# kaq_standins_of_run CONFIG KEY: prints the path of this run's own copy of the
# stand-in drivers, which a build at the same time leaves alone.
kaq_standins_of_run() {
	local built
	built=$(kaq_build_standins "$1" </dev/null) || return 1
	mkdir -p "$KAQ_RUN/$2"
	cp "$built" "$KAQ_RUN/$2/kaq_standins.so" && printf '%s\n' "$KAQ_RUN/$2/kaq_standins.so"
}

# kaq_suite_embed CONFIG KEY SO: programs that embed the engine.
kaq_suite_embed() {
	local config=$1 key=$2 so=$3 begin=$SECONDS library
	local build="$KAQ_CACHE/build/embed-$2" log="$KAQ_LOGS/embed-$2.log" standins
	library=$(kaq_engine_embed "$config")
	if [[ -z $library ]]; then
		kaq_report_skip "embed $key" 'this engine has no embed library'
		return 0
	fi
	: >"$log"
	if ! kaq_cmake "$KAQ_ROOT/tests/extension/embed" "$build" "$log" -DCMAKE_CXX_COMPILER=g++ \
		-DPHP_CONFIG="$config" -DPHP_EMBED_LIBRARY="$library"; then
		kaq_report_broken "embed $key" $((SECONDS - begin)) "$log" 'does not compile'
		return 0
	fi
	if ! standins=$(kaq_standins_of_run "$config" "$key"); then
		kaq_report_broken "embed $key" $((SECONDS - begin)) "$KAQ_LOGS/build-standins-$key.log" \
			'the stand-in drivers do not build'
		return 0
	fi
	KAQ_SO=$so KAQ_STANDINS_SO=$standins kaq_ctest "embed $key" "$build" "$log" 600 "$begin"
}

# kaq_suite_phpt CONFIG KEY SO [valgrind]: the engine's own test runner with no
# php.ini and no extension but ours. It writes beside the tests, so it gets a
# copy of them.
kaq_suite_phpt() {
	local config=$1 key=$2 so=$3 mode=${4:-} name="${4:-phpt} $2" begin=$SECONDS status=0
	local copy="$KAQ_RUN/${4:-phpt}-$2" log="$KAQ_LOGS/${4:-phpt}-$2.log" php runner limit=900
	local -a options=()
	php=$(kaq_engine_binary "$config" php)
	runner=$(kaq_engine_run_tests "$config")
	: >"$log"
	if [[ -z $php || -z $runner ]]; then
		kaq_report_broken "$name" 0 "$log" "this engine has no command line or no run-tests.php"
		return 0
	fi
	mkdir -p "$copy/tests"
	if [[ -d $KAQ_ROOT/tests/extension/phpt ]]; then
		cp -R "$KAQ_ROOT/tests/extension/phpt" "$copy/tests/"
	fi
	if [[ $mode == valgrind ]]; then
		# The regular expression compiler's output is code that valgrind misreads.
		options=(-m -d pcre.jit=0)
		limit=2400
	fi
	(
		cd "$copy" &&
			NO_INTERACTION=1 REPORT_EXIT_STATUS=1 NO_COLOR=1 TEST_PHP_EXECUTABLE=$php KAQ_SO=$so KAQ_PHP=$php \
				TEST_PHP_CGI_EXECUTABLE=$(kaq_engine_binary "$config" php-cgi) \
				KAQ_SOURCE_DIR=$KAQ_ROOT \
				kaq_bounded "$limit" env -u TRAVIS "$php" -n "$runner" -n -q -p "$php" \
				-d extension="$so" "${options[@]}" --set-timeout 120 tests/phpt
	) >"$copy/output" 2>&1 </dev/null || status=$?
	{
		tr '\r' '\n' <"$copy/output" | sed '/^TEST [0-9]/d'
		kaq_phpt_diffs "$copy"
	} >"$log"
	kaq_report "$name" $((SECONDS - begin)) "$log" "$status" runtests "$copy/output"
}

# kaq_phpt_diffs COPY: what differed in each failed test, for the log's end.
kaq_phpt_diffs() {
	local file
	while IFS= read -r file; do
		printf '\n== %s\n' "${file#"$1"/}"
		head -n 40 "$file"
	done < <(find "$1" \( -name '*.diff' -o -name '*.mem' \) -size +0 | sort)
}

# kaq_pytest SUITE CONFIG KEY SO [VARIABLE=VALUE...]: the tests in tests/extension/SUITE, those of
# collector-wire in tests/collector/wire.
kaq_pytest() {
	local suite=$1 config=$2 key=$3 so=$4 begin=$SECONDS status=0 directory others=()
	local log="$KAQ_LOGS/$1-$3.log" results="$KAQ_RUN/$1-$3.xml"
	shift 4
	case $suite in
	collector-*)
		directory="tests/collector/${suite#collector-}"
		others=("${KAQ_EXPORT_TESTS[@]/#/--ignore=}")
		;;
	*) directory="tests/extension/$suite" ;;
	esac
	(
		cd "$KAQ_ROOT" &&
			KAQ_PHP_CONFIG=$config KAQ_SO=$so \
				KAQ_PHP=$(kaq_engine_binary "$config" php) \
				KAQ_PHP_CGI=$(kaq_engine_binary "$config" php-cgi) \
				KAQ_PHP_FPM=$(kaq_engine_binary "$config" php-fpm) \
				PYTHONDONTWRITEBYTECODE=1 \
				kaq_bounded 1200 env "$@" "$(kaq_python)" -m pytest -q -p no:cacheprovider --tb=short \
				-rs --junitxml="$results" "${others[@]}" "$directory"
	) >"$log" 2>&1 </dev/null || status=$?
	kaq_report "$suite $key" $((SECONDS - begin)) "$log" "$status" junit "$results"
}

# kaq_suite_wire CONFIG KEY SO: what the collector sees.
kaq_suite_wire() {
	local standins
	if ! standins=$(kaq_standins_of_run "$1" "$2"); then
		kaq_report_broken "wire $2" 0 "$KAQ_LOGS/build-standins-$2.log" 'the stand-in drivers do not build'
		return 0
	fi
	kaq_pytest wire "$@" KAQ_STANDINS_SO="$standins"
}

# kaq_collector_of_run KEY LOG: the collector, with sanitizers, copied for the run of an engine or suite.
kaq_collector_of_run() {
	mkdir -p "$KAQ_RUN/$1"
	kaq_collector_cmake g++ "$2" &&
		cp "$KAQ_CACHE/build/collector-g++/collector/kaq" "$KAQ_RUN/$1/kaq"
}

# kaq_suite_collector_wire CONFIG KEY SO: the collector beside the extension.
kaq_suite_collector_wire() {
	local log="$KAQ_LOGS/collector-of-$2.log"
	: >"$log"
	if ! kaq_locked collector kaq_collector_of_run "$2" "$log"; then
		kaq_report_broken "collector-wire $2" 0 "$log" 'the collector does not build'
		return 0
	fi
	kaq_pytest collector-wire "$@" KAQ_COLLECTOR="$KAQ_RUN/$2/kaq"
}

# Tests of what leaves the collector for others' programs, which need no engine: they run once, not
# beside each.
KAQ_EXPORT_TESTS=(tests/collector/wire/test_otlp.py tests/collector/wire/test_prometheus.py)

# Each test that lacks what it needs says so, and is skipped.
kaq_suite_export() {
	local log="$KAQ_LOGS/export.log" begin=$SECONDS status=0
	local modules="$KAQ_CACHE/build/export" prometheus="$KAQ_CACHE/prometheus/prometheus"
	: >"$log"
	if ! kaq_locked collector kaq_collector_of_run export "$log"; then
		kaq_report_broken export $((SECONDS - begin)) "$log" 'the collector does not build'
		return 0
	fi
	kaq_export_packages "$modules" "$log" || modules=
	kaq_unpack_package "${prometheus%/*}" prometheus || prometheus=
	(
		cd "$KAQ_ROOT" &&
			KAQ_COLLECTOR="$KAQ_RUN/export/kaq" KAQ_EXPORT_MODULES="$modules" \
				KAQ_PROMETHEUS="$prometheus" PYTHONDONTWRITEBYTECODE=1 \
				kaq_bounded 1200 "$(kaq_python)" -m pytest -q -p no:cacheprovider --tb=short \
				-rs --junitxml="$KAQ_RUN/export/results" "${KAQ_EXPORT_TESTS[@]}"
	) >>"$log" 2>&1 </dev/null || status=$?
	kaq_report export $((SECONDS - begin)) "$log" "$status" junit "$KAQ_RUN/export/results"
}

# kaq_suite_servers CONFIG KEY SO: real drivers that talk to real servers. What
# an engine cannot have is skipped, and the line says what.
kaq_suite_servers() {
	local key=$2 begin=$SECONDS directory file log="$KAQ_LOGS/drivers-$2.log"
	if ! directory=$("$KAQ_ROOT/script/drivers" --php-config "$1" 2>"$log" </dev/null); then
		kaq_report_broken "servers $key" $((SECONDS - begin)) "$log" 'the drivers could not be provided'
		return 0
	fi
	for file in "$directory"/*.missing; do
		if [[ -e $file ]]; then
			kaq_log "servers $key: $(<"$file")"
		fi
	done
	kaq_pytest servers "$@" KAQ_DRIVERS="$directory"
}

# kaq_suite_threads CONFIG KEY SO: a server of many threads, and a sanitizer
# that watches as many.
kaq_suite_threads() {
	if ! kaq_engine_is_zts "$1"; then
		kaq_report_skip "threads $2" 'this engine has no threads'
		return 0
	fi
	kaq_forget_other_checkout "$KAQ_CACHE/build/threads-$2"
	kaq_pytest threads "$@" KAQ_RACE_BUILD="$KAQ_CACHE/build/threads-$2"
}

# kaq_suite_engine_suite CONFIG KEY SO [PART]: the engine's own tests do not
# notice the extension. PART is one that script/engine-suite knows, or all.
kaq_suite_engine_suite() {
	local config=$1 key=$2 so=$3 part=${4:-all} begin=$SECONDS status=0
	local log="$KAQ_LOGS/engine-suite-$2.log"
	kaq_bounded 3600 "$KAQ_ROOT/script/engine-suite" --php-config "$config" --so "$so" \
		--part "$part" >"$KAQ_RUN/engine-suite-$key" 2>"$log" </dev/null || status=$?
	cat "$KAQ_RUN/engine-suite-$key" >>"$log"
	kaq_report "engine-suite $key" $((SECONDS - begin)) "$log" "$status" sum "$KAQ_RUN/engine-suite-$key"
}

# kaq_extension_of_demo SO LOG: the extension for Debian's engine, copied to SO, which the demonstration's
# shop is recorded by. Without that engine there is none, and what needs it is skipped.
kaq_extension_of_demo() {
	local built
	if [[ ! -x $KAQ_DEBIAN_PHP_CONFIG ]]; then
		return 0
	fi
	built=$(KAQ_WERROR=1 kaq_bounded 900 "$KAQ_ROOT/script/build" --php-config "$KAQ_DEBIAN_PHP_CONFIG" 2>>"$2" </dev/null) &&
		cp "$built" "$1"
}

# The collector's pages in a browser, and their sources.
kaq_suite_viewer() {
	local log="$KAQ_LOGS/viewer.log" begin=$SECONDS status=0
	local copy="$KAQ_CACHE/build/viewer" php=
	: >"$log"
	if ! kaq_viewer_packages "$copy" "$log"; then
		rm -rf "$copy/node_modules"
		kaq_report_broken viewer $((SECONDS - begin)) "$log" 'npm cannot have the packages'
		return 0
	fi
	if ! kaq_locked collector kaq_collector_of_run viewer "$log"; then
		kaq_report_broken viewer $((SECONDS - begin)) "$log" 'the collector does not build'
		return 0
	fi
	if ! kaq_extension_of_demo "$KAQ_RUN/viewer/kaq.so" "$log"; then
		kaq_report_broken viewer $((SECONDS - begin)) "$log" 'the extension does not build'
		return 0
	fi
	if [[ -e $KAQ_RUN/viewer/kaq.so ]]; then
		php=$(kaq_engine_binary "$KAQ_DEBIAN_PHP_CONFIG" php)
	fi
	(
		cd "$KAQ_ROOT/tests/viewer" &&
			KAQ_COLLECTOR="$KAQ_RUN/viewer/kaq" KAQ_VIEWER_MODULES="$copy" \
				KAQ_PHP=$php KAQ_SO=${php:+"$KAQ_RUN/viewer/kaq.so"} \
				kaq_bounded 1800 node --test --test-reporter=./reporter.mjs
	) >"$KAQ_RUN/viewer/results" 2>>"$log" </dev/null || status=$?
	cat "$KAQ_RUN/viewer/results" >>"$log"
	kaq_report viewer $((SECONDS - begin)) "$log" "$status" sum "$KAQ_RUN/viewer/results"
}

# kaq_packages_for_suite DIRECTORY: the packages, the same sources packed again, and packages to which
# the first ones can be upgraded.
kaq_packages_for_suite() {
	local version
	"$KAQ_ROOT/script/package" --output "$1/first" --php-config "$KAQ_DEBIAN_PHP_CONFIG" &&
		"$KAQ_ROOT/script/package" --output "$1/again" source || return 1
	version=$(dpkg-deb -f "$(echo "$1"/first/kaq-collector_*.deb)" Version)
	"$KAQ_ROOT/script/package" --output "$1/second" --version "$version.next" \
		--php-config "$KAQ_DEBIAN_PHP_CONFIG" collector extension
}

# The packages, and their life in a fresh root of Debian where one can be had.
kaq_suite_packages() {
	local log="$KAQ_LOGS/suite-packages.log" begin=$SECONDS status=0
	local made="$KAQ_RUN/packages" results="$KAQ_RUN/packages.xml" archive
	mkdir -p "$made"
	if ! kaq_packages_for_suite "$made" >"$log" 2>&1 </dev/null; then
		kaq_report_broken packages $((SECONDS - begin)) "$log" 'the packages could not be made'
		return 0
	fi
	archive=$(kaq_debian_root "$log" "$made"/first/*.deb 2>"$made/reason") || archive=
	(
		cd "$KAQ_ROOT" &&
			KAQ_SOURCE_DIR=$KAQ_ROOT KAQ_PACKAGES=$made KAQ_DEBIAN_ROOT=$archive \
				KAQ_DEBIAN_ROOT_MISSING=$(tail -n 1 "$made/reason") PYTHONDONTWRITEBYTECODE=1 \
				kaq_bounded 1200 "$(kaq_python)" -m pytest -q -p no:cacheprovider --tb=short \
				-rs --junitxml="$results" tests/packages
	) >>"$log" 2>&1 </dev/null || status=$?
	kaq_report packages $((SECONDS - begin)) "$log" "$status" junit "$results"
}

# kaq_python: the distribution's, which has the distribution's pytest.
kaq_python() {
	kaq_first_existing /usr/bin/python3 "$(command -v python3)"
}
