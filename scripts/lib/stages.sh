# shellcheck shell=bash
# shellcheck disable=SC2154 # a variable of scripts/check
# Runs the stages of scripts/check: each in a subshell with a log of its own, a line for its result
# and time, and the sum at the end. Sourced by scripts/check, which sets stage_logs. The results are
# lines of a file there, so that stages may run in a background process.

# stage NAME ABOUT CMD...: ABOUT says what it does and how long about. CMD's status 77 is a skip.
# With stage_live=1 its output is shown as well as kept.
stage() {
    local name=$1 about=$2 log=$stage_logs/$1.log start=$SECONDS status=0
    shift 2
    echo "----  $name: $about"
    if [[ ${stage_live-} ]]; then
        (set -e; "$@") 2>&1 </dev/null | tee "$log"
        status=${PIPESTATUS[0]}
    else
        (set -e; "$@") >"$log" 2>&1 </dev/null
        status=$?
    fi
    case $status in
    0) stage_line PASS "$name" ;;
    77) stage_line SKIP "$name" "$(tail -n 1 "$log")" ;;
    *)
        [[ ${stage_live-} ]] || tail -n 40 "$log" | sed 's/^/      | /'
        stage_line FAIL "$name" "status $status, log $log"
        return 1
        ;;
    esac
}
stage_line() {
    echo "$1 $2" >>"$stage_logs/results"
    printf '%-5s %-14s %4d s  %s\n' "$1" "$2" $((SECONDS - start)) "${3-}"
}
# stages_that PASS|FAIL|SKIP: their names, on one line.
stages_that() { sed -n "s/^$1 //p" "$stage_logs/results" | paste -sd' '; }

# stage_needs NAME...: whether the stages that a later one builds on passed; says which didn't.
stage_needs() {
    local need
    for need in "$@"; do
        grep -qx "PASS $need" "$stage_logs/results" || { echo "not run: it needs $need" && return 1; }
    done
}

# stages_sum: the last lines, and the status of the whole.
stages_sum() {
    local minutes=$((SECONDS / 60)) seconds=$((SECONDS % 60)) told good bad left
    read -ra good <<<"$(stages_that PASS)"
    read -ra bad <<<"$(stages_that FAIL)"
    read -ra left <<<"$(stages_that SKIP)"
    told="check: all ${#good[@]} stages passed"
    ((${#bad[@]})) && told="check: FAILED: ${bad[*]} (logs in $stage_logs)"
    ((${#left[@]})) && told+="; skipped: ${left[*]}"
    echo "$told; $minutes min $seconds s"
    echo "${#good[@]} passed, ${#bad[@]} failed, ${#left[@]} skipped"
    ((${#bad[@]} == 0 && ${#good[@]} > 0))
}
