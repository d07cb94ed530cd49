#!/usr/bin/env bash
# A job of script/test, which sets KAQ_RUN: run_suite.sh SUITE [PHP_CONFIG KEY [PART]].
# "build" makes an engine ready for the suites; PART is for engine-suite.
set -euo pipefail

# shellcheck source=script/lib/log.sh
source "$(dirname "${BASH_SOURCE[0]}")/log.sh"
# shellcheck source=script/lib/engines.sh
source "$KAQ_ROOT/script/lib/engines.sh"
# shellcheck source=script/lib/standins.sh
source "$KAQ_ROOT/script/lib/standins.sh"
# shellcheck source=script/lib/report.sh
source "$KAQ_ROOT/script/lib/report.sh"
# shellcheck source=script/lib/viewer_packages.sh
source "$KAQ_ROOT/script/lib/viewer_packages.sh"
# shellcheck source=script/lib/packages.sh
source "$KAQ_ROOT/script/lib/packages.sh"
# shellcheck source=script/lib/unpacked_packages.sh
source "$KAQ_ROOT/script/lib/unpacked_packages.sh"
# shellcheck source=script/lib/debian_root.sh
source "$KAQ_ROOT/script/lib/debian_root.sh"
# shellcheck source=script/lib/checkout.sh
source "$KAQ_ROOT/script/lib/checkout.sh"
# shellcheck source=script/lib/suites.sh
source "$KAQ_ROOT/script/lib/suites.sh"

# sanitizer_environment CONFIG: with a sanitized engine memory comes from the C
# library, where it is watched. The engine keeps some to its end, so what is
# still allocated then is no finding. Frames are several times as large there.
sanitizer_environment() {
	if kaq_engine_is_asan "$1"; then
		ulimit -S -s 131072 2>/dev/null || true
		export USE_ZEND_ALLOC=0 ZEND_DONT_UNLOAD_MODULES=1
		export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1:disable_coredump=1
	fi
}

suite=$1
if (($# == 1)); then
	case $suite in
	check) kaq_suite_check ;;
	*) kaq_locked "$suite" "kaq_suite_$suite" ;;
	esac
	exit
fi
config=$2 key=$3 so="$KAQ_RUN/$3/kaq.so"
if [[ $suite == build ]]; then
	kaq_build_for_suites "$config" "$key" "$so"
	exit
fi
sanitizer_environment "$config"
case $suite in
embed | threads) kaq_locked "$suite-$key" "kaq_suite_$suite" "$config" "$key" "$so" ;;
valgrind) kaq_suite_phpt "$config" "$key" "$so" valgrind ;;
collector-wire) kaq_suite_collector_wire "$config" "$key" "$so" ;;
engine-suite) kaq_locked engine-suite kaq_suite_engine_suite "$config" "$key" "$so" "$4" ;;
*) "kaq_suite_$suite" "$config" "$key" "$so" ;;
esac
