# What the package's daemon scripts share; sourced, never run. The sourcing script sets `daemon`
# (the name its messages use), `lock` (its lock file), optionally `lock_wait` (seconds, 60 by
# default), and defines log().

# True while each program given is there: a link of the package to a tool that is not installed
# is no program.
tool_installed() {
    local tool
    for tool in "$@"; do
        [ -x "$tool" ] && [ -f "$(readlink -f "$tool")" ] || return 1
    done
}

# True while process $1 exists and has not ended.
alive() {
    local stat
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    stat=${stat##*) }
    [ "${stat%% *}" != Z ]
}

# Prints the pid that file $1 names when that process is alive. The caller still checks what the
# process is: a stale pid file may name a process that has since reused the number.
live_pid_in() {
    local pid=""
    [ -r "$1" ] && read -r pid <"$1"
    case $pid in '' | *[!0-9]*) return 1 ;; esac
    alive "$pid" || return 1
    echo "$pid"
}

# Waits until process $1 is gone; after $2 seconds it is killed.
wait_gone() {
    local i
    for ((i = 0; i < $2 * 10; i++)); do
        alive "$1" || return 0
        sleep 0.1
    done
    log "$daemon ($1) did not stop in $2 s; killing it"
    kill -KILL "$1" 2>/dev/null
    sleep 0.1
}

# Starts, stops and reloads are serialised; status is not, since it changes nothing.
take_lock() {
    local wait=${lock_wait:-60}
    mkdir -p "${lock%/*}"
    exec 9>"$lock"
    flock -w "$wait" 9 || log "waited $wait s for $lock; going on without it"
}
