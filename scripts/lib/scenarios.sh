# shellcheck shell=bash
# shellcheck disable=SC2154 # variables of scripts/vm
# Which scenarios run in which boot, and what became of them. Sourced by scripts/vm.
#
# The head of tests/vm/NAME.sh says how it wants to run:
#   # boot: first  in the shared boot, but before those that use the kernel's user backstores
#   # boot: host   on this machine; it calls scripts/vm (in $VM) itself, for several boots
#   # soak: only   only with --soak; the others see MOSCSI_SOAK=1 then and take their long form
#   # limit: S     seconds it may take (300)
# All but the last kind share one.

scenario_dir=$root/tests/vm
scenario_says() { # NAME KEY DEFAULT
    local value
    value=$(sed -n "1,10s/^# $2: //p" "$scenario_dir/$1.sh")
    echo "${value:-$3}"
}

# The results, by name: PASS, FAIL or SKIP.
declare -A scenario_result

# run_batch NAME...: in one boot; those that it didn't get to stay without a result.
run_batch() {
    local name limit=120 log word rest started=''
    for name in "$@"; do limit=$((limit + $(scenario_says "$name" limit 300))); done
    log=$(mktemp)
    "$0" run --no-build --preset "$preset" --timeout "$limit" "${forwarded[@]}" \
        "$root/scripts/lib/run-scenarios" "$@" 2>&1 | tee "$log"
    while read -r word name rest; do
        case $word in
        RUN) started=$name ;;
        PASS | FAIL | SKIP) [[ $name == "$started" ]] && scenario_result[$name]=$word && started='' ;;
        esac
    done <"$log"
    rm -f "$log"
    # Lost with its guest, or the guest never came up.
    started=${started:-$([[ ${scenario_result[$1]-} ]] || echo "$1")}
    if [[ $started ]]; then
        echo "FAIL $started: its guest was lost"
        scenario_result[$started]=FAIL
    fi
}

run_on_host() {
    local status=0 start=$SECONDS
    echo "RUN  $1 (on this machine, with boots of its own)"
    VM=$0 timeout --kill-after=30 "$(scenario_says "$1" limit 300)" "$scenario_dir/$1.sh" || status=$?
    case $status in
    0) scenario_result[$1]=PASS ;;
    77) scenario_result[$1]=SKIP ;;
    *) scenario_result[$1]=FAIL ;;
    esac
    echo "${scenario_result[$1]} $1 ($((SECONDS - start)) s)"
}

# run_scenarios SOAK NAME...: all when no name is given.
run_scenarios() {
    local soak=$1 name names first=() shared=() counts left
    shift
    names=("$@")
    if ((!$#)); then
        # Those that can be run; the others are what they source.
        mapfile -t names < <(find "$scenario_dir" -maxdepth 1 -name '*.sh' -executable -printf '%f\n' | sed 's/\.sh$//' | sort)
    fi
    forwarded=()
    for name in "${environment[@]+"${environment[@]}"}"; do forwarded+=(--env "$name"); done
    ((soak)) && export MOSCSI_SOAK=1 && forwarded+=(--env MOSCSI_SOAK=1)
    for name in "${names[@]}"; do
        [[ -x $scenario_dir/$name.sh ]] || fail "there is no scenario $scenario_dir/$name.sh that can be run"
        [[ $(scenario_says "$name" soak '') != only ]] || ((soak)) || continue
        case $(scenario_says "$name" boot shared) in
        first) first+=("$name") ;;
        host) run_on_host "$name" ;;
        *) shared+=("$name") ;;
        esac
    done
    shared=("${first[@]}" "${shared[@]}")
    while ((${#shared[@]})); do
        run_batch "${shared[@]}"
        left=()
        for name in "${shared[@]}"; do [[ ${scenario_result[$name]-} ]] || left+=("$name"); done
        shared=("${left[@]}")
    done
    counts=$(printf '%s\n' "${scenario_result[@]}")
    for name in "${!scenario_result[@]}"; do
        [[ ${scenario_result[$name]} == PASS ]] || echo "${scenario_result[$name]} $name"
    done | sort
    echo "scenarios: $(grep -c PASS <<<"$counts") passed, $(grep -c FAIL <<<"$counts") failed, $(grep -c SKIP <<<"$counts") skipped"
    [[ $counts == *PASS* && $counts != *FAIL* ]]
}
