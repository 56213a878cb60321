# shellcheck shell=bash
# shellcheck disable=SC2154 # a variable of scripts/check
# Runs the stages of scripts/check: each in a subshell with a log of its own, a line for its result
# and time, and the sum at the end. Sourced by scripts/check, which sets stage_logs.

stages_passed=() stages_failed=() stages_skipped=()

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
    0) stages_passed+=("$name") && stage_line PASS "$name" ;;
    77) stages_skipped+=("$name") && stage_line SKIP "$name" "$(tail -n 1 "$log")" ;;
    *)
        stages_failed+=("$name")
        [[ ${stage_live-} ]] || tail -n 40 "$log" | sed 's/^/      | /'
        stage_line FAIL "$name" "status $status, log $log"
        return 1
        ;;
    esac
}
stage_line() { printf '%-5s %-14s %4d s  %s\n' "$1" "$2" $((SECONDS - start)) "${3-}"; }

# stage_needs NAME...: whether the stages that a later one builds on passed; says which didn't.
stage_needs() {
    local need
    for need in "$@"; do
        [[ " ${stages_passed[*]} " == *" $need "* ]] || { echo "not run: it needs $need" && return 1; }
    done
}

# stages_sum: the last lines, and the status of the whole.
stages_sum() {
    local minutes=$((SECONDS / 60)) seconds=$((SECONDS % 60)) told
    told="check: all ${#stages_passed[@]} stages passed"
    ((${#stages_failed[@]})) && told="check: FAILED: ${stages_failed[*]} (logs in $stage_logs)"
    ((${#stages_skipped[@]})) && told+="; skipped: ${stages_skipped[*]}"
    echo "$told; $minutes min $seconds s"
    echo "${#stages_passed[@]} passed, ${#stages_failed[@]} failed, ${#stages_skipped[@]} skipped"
    ((${#stages_failed[@]} == 0))
}
