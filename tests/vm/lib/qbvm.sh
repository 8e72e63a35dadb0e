# Helpers for the VM test's check scripts (sourced: . /lib/qbvm/qbvm.sh).
#
# /init runs each check script with the working directory $CHECK_WORK (empty, on tmpfs), a fresh
# vcan0 (up, no queue discipline), standard output and error going to the check's log, and file
# descriptor 3 going to the result lines. A check writes at least one result line with pass,
# fail or skip (or result, for a check of several parts) and may write metrics. The variables
# given to scripts/vm/run.sh with --env NAME=VALUE are in the environment.

# pass DETAIL / fail DETAIL: the result of this check.
pass() { say_result "CHECK $CHECK_NAME PASS $*"; }
fail() { say_result "CHECK $CHECK_NAME FAIL $*"; }
# skip REASON: this check could not run here, for REASON (e.g. a host program it needs is not
# installed); counted as a check, not as a failure.
skip() { say_result "CHECK $CHECK_NAME SKIP $*"; }

# say_result LINE: LINE in the check's log and among the result lines.
say_result() {
    echo "$1"
    echo "$1" >&3
}

# result PART PASS|FAIL|SKIP DETAIL: the result of one part of this check (reported as NAME.PART).
result() {
    local part=$1 verdict=$2
    shift 2
    say_result "CHECK $CHECK_NAME.$part $verdict $*"
}

# metric KEY VALUE: a figure measured by this check (reported as NAME.KEY).
metric() { say_result "METRIC $CHECK_NAME.$1 $2"; }

# note TEXT: a line in the check's log only.
note() { echo "note: $*"; }

# wait_for SECONDS COMMAND...: run COMMAND every 20 ms until it succeeds (status 0) or SECONDS
# have passed (status 1).
wait_for() {
    local limit=$1 deadline now
    shift
    deadline=$(awk -v u="$(cut -d' ' -f1 /proc/uptime)" -v s="$limit" 'BEGIN { print u + s }')
    while ! "$@"; do
        now=$(cut -d' ' -f1 /proc/uptime)
        if awk -v n="$now" -v d="$deadline" 'BEGIN { exit !(n >= d) }'; then
            return 1
        fi
        usleep 20000
    done
}

# uptime_s: seconds since boot, with hundredths.
uptime_s() { cut -d' ' -f1 /proc/uptime; }

# elapsed START: seconds since START (an uptime_s value), with hundredths.
elapsed() { awk -v a="$1" -v b="$(uptime_s)" 'BEGIN { printf "%.2f", b - a }'; }

# cpu_ticks PID: user + system CPU time of PID (all its threads) in clock ticks (1/100 s), from
# /proc/PID/stat; fails once the process is gone (the shell reaps its children at once, so
# sample while it runs).
cpu_ticks() {
    # The command name (field 2) is in parentheses and may hold blanks: cut after the last ')'.
    local stat
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    echo "${stat##*) }" | awk '{ print $12 + $13 }'
}

# alive PID: PID exists and is not a zombie.
alive() { [ -e "/proc/$1/stat" ] && [ "$(sed 's/.*) //' "/proc/$1/stat" | cut -d' ' -f1)" != Z ]; }

# hexfile FILE: FILE's bytes as one line of upper-case hex.
hexfile() { od -An -v -tx1 "$1" | tr -d ' \n' | tr 'a-f' 'A-F'; echo; }

# random_file FILE SIZE: SIZE random bytes in FILE.
random_file() { head -c "$2" /dev/urandom >"$1"; }

# Frames seen by can-utils' own candump, in candump -L form.
#
# start_candump FILE [INTERFACE[,FILTERS] [candump options...]]: start 'candump -L OPTIONS WHAT'
# (WHAT by default vcan0; filters given with it must let 7FF pass) writing to FILE, and wait until
# it demonstrably receives: probe frames (identifier 7FF, data CA FE) are sent until one shows in
# FILE. Sets CANDUMP_PID. Strip the probes with frames_of.
start_candump() {
    local file=$1 what=${2:-vcan0}
    shift
    [ $# -eq 0 ] || shift
    candump -L "$@" "$what" >"$file" &
    CANDUMP_PID=$!
    if ! wait_for 10 probe_seen "$file"; then
        echo "candump did not start receiving"
        return 1
    fi
}
probe_seen() {
    cansend vcan0 7FF#CAFE
    usleep 20000
    grep -q ' 7FF#CAFE$' "$1"
}

# stop_candump FILE: send an end probe (7FF#CAFF), wait until candump has written it (everything
# sent before it is then in FILE too), and stop candump.
stop_candump() {
    cansend vcan0 7FF#CAFF
    wait_for 10 grep -q ' 7FF#CAFF$' "$1" || echo "candump did not see the end probe"
    kill "$CANDUMP_PID" 2>/dev/null
    wait "$CANDUMP_PID" 2>/dev/null
    return 0
}

# frames_of_times FILE: the same with the time stamps, "SEC.USEC ID#DATA" a line.
frames_of_times() { grep -v ' 7FF#CA' "$1" | sed -n 's/^(\([0-9.]*\)) [^ ]* \(.*\)/\1 \2/p'; }

# frames_of FILE: the frames of a candump -L file without time stamps and without the probes.
frames_of() { grep -v ' 7FF#CA' "$1" | cut -d' ' -f2-; }

# busybox's shell runs its own applets before programs of the same name in PATH, and its tc does
# not know tbf: the checks use iproute2's.
tc() { /usr/sbin/tc "$@"; }

# can_filters ID: how many CAN_RAW sockets on vcan0 have a receive filter for the standard
# identifier ID (hex, e.g. 7E0), from /proc/net/can/rcvlist_fil. A tool has bound its socket once
# its filter shows there.
can_filters() {
    awk -v id="$(echo "$1" | tr 'A-F' 'a-f' | sed 's/^0*//')" \
        '$1 == "vcan0" { v = $2; sub(/^0*/, "", v); if (v == id) n++ } END { print n + 0 }' \
        /proc/net/can/rcvlist_fil
}

# wait_can_filters ID N [SECONDS]: wait until N sockets filter for ID (default 10 s).
wait_can_filters() {
    wait_for "${3:-10}" can_filters_at_least "$1" "$2"
}
can_filters_at_least() { [ "$(can_filters "$1")" -ge "$2" ]; }

# stat_of FILE KEY: the value of KEY in the last 'stats IFACE key=N ...' line of FILE (written by
# the cantp SocketCAN commands with --stats); empty if there is none.
stat_of() {
    sed -n "s/^stats .* $2=\([0-9][0-9]*\).*/\1/p" "$1" | tail -n 1
}

# tx_packets: frames vcan0 has carried since it was created (every frame written to it and not
# refused by its queue).
tx_packets() { cat /sys/class/net/vcan0/statistics/tx_packets; }

# qdisc_dropped: the frames vcan0's queue discipline refused (each one an ENOBUFS for the writer).
qdisc_dropped() { tc -s qdisc show dev vcan0 | sed -n 's/.*(dropped \([0-9]*\),.*/\1/p' | head -1; }
