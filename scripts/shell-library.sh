# What several scripts share. Sourced, with the script's own folder as the place to find it.

# Prints the comment at the top of the script: its manual.
print_manual() {
    awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"
}

# Ends the script when its first argument asks for help. Call it before anything is set up.
help_if_asked() {
    case "${1:-}" in
        -h | --help) print_manual; exit 0 ;;
    esac
}

# Refuses what the script does not know: says so, prints the manual, and ends with 2.
refuse() {
    echo "$(basename "$0"): unknown argument $1" >&2
    print_manual >&2
    exit 2
}

# For a script without arguments.
take_no_arguments() {
    help_if_asked "$@"
    [ $# = 0 ] || refuse "$1"
}

# Seconds as minutes and seconds: "2:05".
minutes_of() {
    printf '%d:%02d' $(($1 / 60)) $(($1 % 60))
}

# When and where something is measured, in one sentence.
place_of_measurement() {
    echo "Measured on $(date -u +%Y-%m-%d), $(uname -srm), $(nproc) processors" \
        "($(sed -n 's/^model name[[:blank:]]*: //p' /proc/cpuinfo | head -1))," \
        "$(c++ --version | head -1)."
}

# Reads what ninja or ctest prints. On a terminal the lines that count ("[12/345] ...", " 12/345 Test
# ...") become one line that counts in place, beside the name given; elsewhere they are left out. All
# other lines, those of failures among them, pass.
show_progress() {
    local terminal=0
    [ ! -t 2 ] || terminal=1
    awk -v name="$1" -v terminal="$terminal" '
        function clear() { if (shown) { printf "\r\033[K" > "/dev/stderr"; shown = 0 } }
        match($0, /^\[[0-9]+\/[0-9]+\]/) || match($0, /^ *[0-9]+\/[0-9]+ Test +#/) {
            count = substr($0, RSTART, RLENGTH)
            gsub(/[^0-9\/]|Test.*/, "", count)
            if (terminal) { printf "\r\033[K%s %s", name, count > "/dev/stderr"; shown = 1 }
            if ($0 ~ /Test +#/ && $0 !~ / Passed /) { clear(); print; fflush() }
            next
        }
        /^ *(Test project|Internal ctest|Start +[0-9]+:)/ || /^$/ || /^ninja: (no work|Entering)/ { next }
        { clear(); print; fflush() }
        END { clear() }'
}
