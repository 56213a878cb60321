# shellcheck shell=bash
# Reads scripts/packages and installs what is missing. Sourced by the scripts.

packages_file="$(dirname "${BASH_SOURCE[0]}")/../packages"

# packages_of SECTION: prints the packages of a section, one a line.
packages_of() {
    awk -v want="[$1]" '
        /^\[/ { inside = ($1 == want); found = found || inside; next }
        inside && NF && $1 !~ /^#/ { print $1 }
        END { exit !found }' "$packages_file" || {
        echo "scripts/packages has no section [$1]" >&2
        return 1
    }
}

# packages_missing SECTION...: prints what isn't installed.
packages_missing() {
    local section name
    for section in "$@"; do
        for name in $(packages_of "$section"); do
            [[ $(dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null) == installed ]] ||
                echo "$name"
        done
    done
}

# packages_install SECTION...: installs what is missing; says so, and how to do it when it can't.
packages_install() {
    local missing
    mapfile -t missing < <(packages_missing "$@")
    ((${#missing[@]})) || return 0
    if ((EUID)); then
        echo "these packages are missing; install them as root: apt-get install ${missing[*]}" >&2
        return 1
    fi
    echo "installing ${#missing[@]} packages (a minute or two): ${missing[*]}"
    local log
    log=$(mktemp)
    if ! { apt-get update && DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        rm -f "$log"
        echo "apt-get failed; the lines above say why" >&2
        return 1
    fi
    rm -f "$log"
}
