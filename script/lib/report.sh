# shellcheck shell=bash
# One tidy line per suite and the sum of all. Source log.sh first, and set KAQ_RUN
# to a directory of this run's own, where the counts are gathered. A suite's line
# goes to standard output, what explains a failure below it.

# kaq_report_line STATE NAME PASSED FAILED SKIPPED SECONDS [NOTE]
kaq_report_line() {
	printf '%-5s %-22s %5d passed %4d failed %4d skipped %8s%s\n' \
		"$1" "$2" "$3" "$4" "$5" "$(kaq_elapsed "$6")" "${7:+  $7}"
	printf '%d %d %d\n' "$3" "$4" "$5" >>"$KAQ_RUN/counts"
}

# kaq_report_tail LOG: the end of a log, indented.
kaq_report_tail() {
	if [[ -f $1 ]]; then
		tail -n 30 "$1" | cut -c1-300 | sed 's/^/      | /'
		printf '      log: %s\n' "$1"
	fi
}

# kaq_report_broken NAME SECONDS LOG TEXT: a suite that could not run counts as
# one failure.
kaq_report_broken() {
	kaq_report_line FAIL "$1" 0 1 0 "$2" "$4"
	kaq_report_tail "$3"
}

# kaq_report_skip NAME TEXT: a suite that this engine cannot have.
kaq_report_skip() {
	kaq_report_line skip "$1" 0 0 1 0 "$2"
}

# kaq_report NAME SECONDS LOG STATUS READER FILE: counts FILE with results.py.
# A suite fails if a test failed, if none passed or was even skipped, or if its
# command ended with a bad status though no test names itself as the reason.
kaq_report() {
	local name=$1 seconds=$2 log=$3 status=$4 reader=$5 file=$6
	local passed failed skipped
	local -a counted
	mapfile -t counted < <(python3 "$KAQ_ROOT/script/lib/results.py" "$reader" "$file" 2>>"$log")
	if ((${#counted[@]} == 0)); then
		kaq_report_broken "$name" "$seconds" "$log" "left no results (status $status)"
		return 0
	fi
	read -r passed failed skipped <<<"${counted[0]}"
	if ((passed + failed + skipped == 0)); then
		kaq_report_broken "$name" "$seconds" "$log" 'ran no test'
	elif ((failed > 0)); then
		kaq_report_line FAIL "$name" "$passed" "$failed" "$skipped" "$seconds"
		printf '      failed: %s\n' "${counted[@]:1}"
		kaq_report_tail "$log"
	elif ((status != 0)); then
		kaq_report_line FAIL "$name" "$passed" 1 "$skipped" "$seconds" \
			"$( ((status == 124 || status == 137)) && echo 'out of time' || echo "ended with status $status")"
		kaq_report_tail "$log"
	else
		kaq_report_line ok "$name" "$passed" 0 "$skipped" "$seconds"
	fi
}

# kaq_report_sum: the last line of a run; false if anything failed.
kaq_report_sum() {
	local passed failed skipped all_passed=0 all_failed=0 all_skipped=0
	while read -r passed failed skipped; do
		all_passed=$((all_passed + passed))
		all_failed=$((all_failed + failed))
		all_skipped=$((all_skipped + skipped))
	done < <(cat "$KAQ_RUN/counts" 2>/dev/null)
	printf '%d passed, %d failed, %d skipped\n' "$all_passed" "$all_failed" "$all_skipped"
	((all_failed == 0 && all_passed > 0))
}
