# shellcheck shell=bash
# shellcheck disable=SC2154  # demo_users and made belong to the script that reads this file
# Reads a storage of the demonstration and prints its backups. A backup is named DATE.USER; its data comes from the
# info file on the storage.

declare -A kind size slices base

# digits 1234567 -> 1,234,567
digits() {
    local number=$1 text=''
    while ((${#number} > 3)); do
        text=,${number: -3}$text
        number=${number::-3}
    done
    echo "$number$text"
}

# read_storage DIRECTORY: fills the four tables above.
read_storage() {
    local info name key value
    kind=() size=() slices=() base=()
    for info in "$1"/*.info; do
        [[ -e $info ]] || continue
        name=$(basename -- "$info" .info)
        while IFS='=' read -r key value; do
            case $key in
                type) if [[ $value == full ]]; then kind[$name]=F; else kind[$name]=i; fi ;;
                size) size[$name]=$value ;;
                base) base[$name]=$value ;;
                last-slice)
                    value=${value%.dar}
                    slices[$name]=${value##*.}
                    ;;
            esac
        done < <(cat -- "$info" && echo)
    done
}

sum_of_info_files() {
    local name sum=0
    for name in "${!size[@]}"; do sum=$((sum + size[$name])); done
    echo "$sum"
}

sum_of_files() { find "$1" -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum + 0 }'; }

# meter USED LIMIT: prints a bar of 30 characters and the percentage.
meter() {
    local filled=$(($1 * 30 / $2)) bar
    printf -v bar '%*s' "$filled" ''
    bar=${bar// /#}
    printf '[%-30s] %3d %%' "$bar" $(($1 * 100 / $2))
}

# show_storage DATE...: prints a row per date and a column per user: kind, slices, bytes.
show_storage() {
    local date user
    {
        printf '  %-16s' ''
        printf '%-26s' "${demo_users[@]}"
        printf '\n  %-16s' 'date'
        for user in "${demo_users[@]}"; do printf '%-26s' 'kind  slices      bytes'; done
        printf '\n'
        for date in "$@"; do
            printf '  %-16s' "$(date -u -d "$date" '+%a %F')"
            for user in "${demo_users[@]}"; do printf '%-26s' "$(show_backup "$date.$user")"; done
            printf '\n'
        done
    } | sed 's/ *$//'
}

show_backup() {
    if [[ -n ${kind[$1]:-} ]]; then
        printf '%-4s  %6d  %9s' "${kind[$1]}" "${slices[$1]}" "$(digits "${size[$1]}")"
    elif [[ -n ${made[$1]:-} ]]; then
        printf '.       evicted'
    fi
}

most_slices() { printf '%s\n' "${slices[@]}" | sort -n | tail -n 1; }

# slices_complete DIRECTORY NAME: succeeds when all slices and the catalogue of a backup exist and are not empty.
slices_complete() {
    local letter=I n
    [[ ${kind[$2]} != F ]] || letter=F
    for ((n = 1; n <= slices[$2]; n++)); do [[ -s $1/$letter$2.$n.dar ]] || return 1; done
    [[ -s $1/$2.1.dar ]]
}

# show_restorable DIRECTORY: prints one line per user. Fails when a remaining backup cannot be restored.
show_restorable() {
    local user name full fulls dailies bases bad=0
    for user in "${demo_users[@]}"; do
        fulls=0 dailies=0 bases=''
        while IFS= read -r name; do
            slices_complete "$1" "$name" || { echo "  $user: $name lacks slices"; bad=1; continue; }
            if [[ ${kind[$name]} == F ]]; then
                fulls=$((fulls + 1))
                continue
            fi
            full=${base[$name]#F}
            full=${full%.tgz}
            if [[ ${kind[$full]:-} != F ]]; then
                echo "  $user: $name lost its full backup $full"
                bad=1
                continue
            fi
            dailies=$((dailies + 1))
            [[ $bases == *"${full%%.*}"* ]] || bases+="${bases:+, }${full%%.*}"
        done < <(printf '%s\n' "${!kind[@]}" | grep -E "^[0-9-]{10}\.$user\$" | sort)
        printf '  %-14s %d full, %d daily: every daily rests on a full backup that is there (%s)\n' \
            "$user" "$fulls" "$dailies" "$bases"
    done
    return "$bad"
}
