#!/bin/bash
# This node's usage counters (memcached on 127.0.0.1:11211), where the policy daemons keep how
# much each sender has sent today. The library asks its status before it reads the counters:
#
#   memcached.sh start|stop|restart|status
#
# status exits 0 only while our memcached runs and answers. Where memcached is not installed every
# word but stop fails and says so.

target=/var/packages/Quillon-Server/target
run=/var/run/quillon_server
lock=/var/lock/quillon_server/usage_memcached.lock
memcached=$target/bin/memcached
user=Quillon-Server
pid_file=$run/usage_memcached.pid
address=127.0.0.1
port=11211

daemon=memcached
lock_wait=30
. "${BASH_SOURCE%/*}/daemon_common.sh"

log() {
    echo "memcached.sh: $*" >&2
}

installed() {
    tool_installed "$memcached"
}

# The pid of our memcached when the pid file names a live memcached on our port.
running_pid() {
    local pid cmdline
    pid=$(live_pid_in "$pid_file") || return 1
    cmdline=$(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null)
    [[ $cmdline == *memcached* && $cmdline == *" $port "* ]] || return 1
    echo "$pid"
}

answers() {
    (
        exec 3<>"/dev/tcp/$address/$port" || exit 1
        printf 'version\r\n' >&3
        read -r -t 5 reply <&3 || exit 1
        [[ $reply == VERSION* ]]
    ) 2>/dev/null
}

status() {
    installed || return 1
    running_pid >/dev/null && answers
}

start() {
    local i as_user=()
    status && return 0
    mkdir -p "$run" || return 1
    [ "$(id -u)" = 0 ] && as_user=(-u "$user")
    # Counters only: no UDP, loopback only, a small memory. It runs in the foreground of a
    # session of its own, so that the pid file is written here, as root, and not by a daemon that
    # has already become the package user.
    setsid "$memcached" -l "$address" -p "$port" -U 0 -m 64 "${as_user[@]}" \
        </dev/null >/dev/null 2>&1 9>&- &
    echo $! >"$pid_file"
    for ((i = 0; i < 100; i++)); do
        status && return 0
        sleep 0.1
    done
    log "memcached did not answer on $address:$port within 10 s"
    return 1
}

stop() {
    local pid i
    if pid=$(running_pid); then
        kill -TERM "$pid" 2>/dev/null
        for ((i = 0; i < 100; i++)); do
            alive "$pid" || break
            sleep 0.1
        done
        alive "$pid" && kill -KILL "$pid" 2>/dev/null
    fi
    rm -f "$pid_file"
    return 0
}

case $1 in
    status)
        status
        exit $?
        ;;
    start)
        installed || { log "memcached is not installed on this node"; exit 1; }
        take_lock
        start
        exit $?
        ;;
    stop)
        take_lock
        stop
        exit $?
        ;;
    restart)
        installed || { log "memcached is not installed on this node"; exit 1; }
        take_lock
        stop
        start
        exit $?
        ;;
    *)
        echo "usage: $0 start|stop|restart|status" >&2
        exit 1
        ;;
esac
