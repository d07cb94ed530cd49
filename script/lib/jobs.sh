# shellcheck shell=bash
# Runs jobs side by side. Source log.sh and report.sh first, and set KAQ_RUN to a
# directory of this run's own.
#
# A job is a command that reports with kaq_report_line and the like. Its standard
# output is shown when it ends, in one piece. Nothing that it started outlives it.

KAQ_JOBS=()
declare -A KAQ_JOB_LIMIT=() KAQ_JOB_AFTER=() KAQ_JOB_COMMAND=() KAQ_JOB_BEGIN=() KAQ_JOB_STATE=()
# The jobs under way, by process id.
declare -A KAQ_RUNNING=()

# kaq_add_job NAME SECONDS AFTER COMMAND...: NAME waits for the end of the job
# AFTER, which may be empty, and is ended after SECONDS. Jobs that could start
# start in the order in which they were added.
kaq_add_job() {
	KAQ_JOBS+=("$1")
	KAQ_JOB_LIMIT[$1]=$2
	KAQ_JOB_AFTER[$1]=$3
	KAQ_JOB_STATE[$1]=waiting
	printf -v "KAQ_JOB_COMMAND[$1]" '%q ' "${@:4}"
}

# kaq_job_log NAME: where a job leaves what explains a failure, if it does.
kaq_job_log() {
	printf '%s\n' "$KAQ_CACHE/logs/${1// /-}.log"
}

# kaq_run_jobs N: runs what was added, N at a time, and reports what could not
# report itself.
kaq_run_jobs() {
	local pid status
	mkdir -p "$KAQ_RUN/output"
	trap 'kaq_stop_jobs 130' INT
	trap 'kaq_stop_jobs 143' TERM HUP
	kaq_start_jobs "$1"
	while ((${#KAQ_RUNNING[@]} > 0)); do
		# "wait -n" may miss one that ended a moment ago.
		sleep 0.2
		for pid in "${!KAQ_RUNNING[@]}"; do
			if ! kill -0 "$pid" 2>/dev/null; then
				status=0
				wait "$pid" || status=$?
				kaq_end_job "${KAQ_RUNNING[$pid]}" "$status"
				unset "KAQ_RUNNING[$pid]"
			fi
		done
		kaq_start_jobs "$1"
	done
	trap - INT TERM HUP
}

# kaq_start_jobs N: starts jobs until N run or none is ready.
kaq_start_jobs() {
	local job after
	local -a command
	for job in "${KAQ_JOBS[@]}"; do
		((${#KAQ_RUNNING[@]} < $1)) || break
		[[ ${KAQ_JOB_STATE[$job]} == waiting ]] || continue
		after=${KAQ_JOB_AFTER[$job]}
		case ${after:+${KAQ_JOB_STATE[$after]}} in
		waiting | running) ;;
		failed)
			kaq_log "$job: not run, because $after failed"
			KAQ_JOB_STATE[$job]=failed
			;;
		*)
			eval "command=(${KAQ_JOB_COMMAND[$job]})"
			kaq_log "$job"
			rm -f "$(kaq_job_log "$job")"
			python3 "$KAQ_ROOT/script/lib/supervise.py" "${KAQ_JOB_LIMIT[$job]}" "${command[@]}" \
				>"$KAQ_RUN/output/$job" </dev/null &
			KAQ_RUNNING[$!]=$job
			KAQ_JOB_BEGIN[$job]=$SECONDS
			KAQ_JOB_STATE[$job]=running
			;;
		esac
	done
}

# kaq_end_job NAME STATUS: a job that ended well has said something. One with a
# status of its own has said why, or else has broken down, as one that was ended.
kaq_end_job() {
	local job=$1 status=$2 output="$KAQ_RUN/output/$1" problem=
	cat "$output"
	if ((status == 124)); then
		problem='out of time'
	elif ((status > 128)); then
		problem="ended by signal $((status - 128))"
	elif ((status == 0)) && [[ ! -s $output ]]; then
		problem='reported nothing'
	elif ((status != 0)) && ! grep -q '^FAIL ' "$output"; then
		problem="ended with status $status"
	fi
	if [[ -n $problem ]]; then
		kaq_report_broken "$job" $((SECONDS - KAQ_JOB_BEGIN[$job])) "$(kaq_job_log "$job")" "$problem"
	fi
	if ((status == 0)); then
		KAQ_JOB_STATE[$job]=over
	else
		KAQ_JOB_STATE[$job]=failed
	fi
}

# kaq_stop_jobs STATUS: ends the script, and before it all that runs.
kaq_stop_jobs() {
	local -a pids
	trap '' INT TERM HUP
	kaq_log "told to end; ending ${KAQ_RUNNING[*]}"
	# What was started a moment ago may not stand in the list yet.
	mapfile -t pids < <(jobs -p)
	kill -TERM "${pids[@]}" 2>/dev/null || true
	wait "${pids[@]}" || true
	exit "$1"
}
