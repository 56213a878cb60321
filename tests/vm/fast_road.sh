#!/bin/bash
# The plug-in's command lines end alike, whether the real targetcli carries them out or the wrapper
# itself: status, output and the kernel's whole tree, from the same states; and those that should
# take the wrapper's own road do.
# limit: 900
. "$(dirname "$0")/../../scripts/lib/session.sh"
requires test -x /usr/bin/targetcli

export MOSCSI_RUN_DIR=$work/run
nothing_left() { [[ -z $(ls -d $configfs/target/core/*_* 2>/dev/null) ]] || /usr/bin/targetcli clearconfig confirm=true; }
cleanup nothing_left
step "a host that serves user backstores" shell_start
step "a first run of the real targetcli, which loads its modules" /usr/bin/targetcli ls
step "every line by both roads" python3 -B tests/vm/fast_road.py "$home_dir/bin/targetcli" "$work"
say "           $(tail -n 1 "$work/step.log")"
