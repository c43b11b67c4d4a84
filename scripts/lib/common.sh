# shellcheck shell=bash
# Functions and variables that the scripts share. A script sets `set -euo pipefail` itself and then sources this file.

# shellcheck disable=SC2034  # for the script that reads this file
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)

if [[ -t 1 ]]; then
    bold=$'\033[1m' plain=$'\033[0m'
else
    bold='' plain=''
fi

heading() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }

die() {
    printf '%s: %s\n' "$(basename -- "$0")" "$*" >&2
    exit 1
}

# project_files DIRECTORY SUFFIX...: prints the project's own files that end in one of the suffixes, one per line,
# relative to the directory. Outside a git checkout (an unpacked archive, a copy made by a test) it prints all
# such files except those in build/.
project_files() {
    local dir=$1 suffix
    shift
    local patterns=()
    for suffix in "$@"; do patterns+=("*$suffix"); done
    if [[ -e $dir/.git ]]; then
        git -C "$dir" ls-files -co --exclude-standard -- "${patterns[@]}"
    else
        for suffix in "$@"; do
            find "$dir" -path "$dir/build" -prune -o -type f -name "*$suffix" -printf '%P\n'
        done
    fi | sort -u | while IFS= read -r file; do
        if [[ -f $dir/$file ]]; then printf '%s\n' "$file"; fi
    done
}

# Runs a command quietly; prints its output only when it fails.
quietly() {
    local log status=0
    log=$(mktemp)
    "$@" >"$log" 2>&1 || status=$?
    if ((status != 0)); then
        cat "$log" >&2
    fi
    rm -f "$log"
    return "$status"
}

# make_debian DIRECTORY OPTION...: installs Debian 12 there, from the mirror that this machine's apt uses. The options are
# those of mmdebstrap.
make_debian() {
    local directory=$1 mirror options=() line
    shift
    # shellcheck disable=SC2016 # apt replaces $(SITE)
    mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 'Codename: bookworm' 'Component: main' | head -n 1)
    [[ -n $mirror ]] || die 'apt knows no packages of Debian 12; run apt-get update'
    while IFS= read -r line; do options+=("--aptopt=${line%;}"); done < <(apt-config dump --no-empty Acquire | grep '::Proxy')
    mmdebstrap --mode=root --variant=apt --quiet "${options[@]}" "$@" bookworm "$directory" "$mirror"
}
