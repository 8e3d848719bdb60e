#!/bin/bash
# This node's virus scanning daemon (clamd), with the package's own configuration and signature
# folder and never the machine's /etc/clamav. The library runs it by path:
#
#   clamav.sh start|stop|restart|reload|status
#
# clamd listens on a local socket only (etc/clamav/clamd.conf of the package says where);
# bin/clamdscan of the package talks to it through the same file. status exits 0 only while our
# clamd runs and answers. Where clamd is not installed every word but stop fails and says so.

target=/var/packages/Quillon-Server/target
conf_dir=$target/etc/clamav
conf=$conf_dir/clamd.conf
database=$target/share/clamav
run=/var/run/quillon_server
log_dir=$target/var/log
lock=/var/lock/quillon_server/clamav_daemon.lock

clamd=$target/sbin/clamd
clamdscan=$target/bin/clamdscan
user=Quillon-Server

pid_file=$run/clamd.pid
# The socket's own folder belongs to the package user, whom clamd becomes; the shared run folder,
# with the pid files of root's daemons, stays root's.
socket_dir=$run/clamd
socket=$socket_dir/clamd.sock
clamd_log=$log_dir/clamd.log

daemon=clamd
lock_wait=120
. "${BASH_SOURCE%/*}/daemon_common.sh"

log() {
    echo "clamav.sh: $*" >&2
}

installed() {
    tool_installed "$clamd"
}

need_clamd() {
    if ! installed; then
        log "clamd is not installed on this node ($clamd leads to no program)"
        exit 1
    fi
}

# Prints the pid of our clamd when the pid file names a live clamd. A stale pid file may name a
# process that has since reused the number, hence the name check.
running_pid() {
    local pid exe
    pid=$(live_pid_in "$pid_file") || return 1
    exe=$(tr '\0' '\n' <"/proc/$pid/cmdline" 2>/dev/null | head -n 1)
    [ "${exe##*/}" = clamd ] || return 1
    echo "$pid"
}

answers() {
    "$clamdscan" --ping 1 >/dev/null 2>&1
}

status() {
    installed || return 1
    running_pid >/dev/null && answers
}

# The folder must hold something clamd can load, or it refuses to start.
has_database() {
    local f
    for f in "$database"/*; do
        [ -f "$f" ] && return 0
    done
    return 1
}

# Written anew at each start, so that the file always says what this script expects.
write_config() {
    mkdir -p "$conf_dir" || return 1
    local tmp
    tmp=$(mktemp "$conf_dir/.clamd.conf.XXXXXX") || return 1
    cat >"$tmp" <<CONF
# Written by scripts/daemon/clamav.sh at each start; changes here are lost.
LocalSocket $socket
LocalSocketMode 660
FixStaleSocket yes
PidFile $pid_file
DatabaseDirectory $database
LogFile $clamd_log
LogTime yes
User $user
Foreground no
ScanArchive yes
SelfCheck 0
CONF
    chmod 0644 "$tmp" && mv -f "$tmp" "$conf"
}

prepare_folders() {
    mkdir -p "$run" "$socket_dir" "$log_dir" "$database" || return 1
    if [ "$(id -u)" = 0 ]; then
        # clamd writes its log and its socket as the package user.
        touch "$clamd_log" && chown "$user:$user" "$clamd_log" "$socket_dir" || return 1
    fi
    return 0
}

# Waits up to $1 seconds until our clamd answers.
wait_ready() {
    local i
    for ((i = 0; i < $1 * 10; i++)); do
        running_pid >/dev/null && answers && return 0
        sleep 0.1
    done
    return 1
}

start() {
    status && return 0
    if ! has_database; then
        log "no signature database in $database: clamd has nothing to scan with"
        return 1
    fi
    prepare_folders || { log "cannot prepare $run and $log_dir"; return 1; }
    write_config || { log "cannot write $conf"; return 1; }
    # clamd loads every signature before it leaves the foreground, so this returns once it is
    # ready or has failed.
    if ! "$clamd" --config-file="$conf" </dev/null >/dev/null 2>&1 9>&-; then
        log "clamd refused to start; see $clamd_log"
        return 1
    fi
    if ! wait_ready 120; then
        log "clamd did not answer on $socket within 120 s; see $clamd_log"
        return 1
    fi
    return 0
}

stop() {
    local pid
    if pid=$(running_pid); then
        kill -TERM "$pid" 2>/dev/null
        wait_gone "$pid" 30
    fi
    rm -f "$pid_file"
    return 0
}

reload() {
    if ! running_pid >/dev/null; then
        log "clamd is not running; nothing to reload"
        return 1
    fi
    "$clamdscan" --reload >/dev/null || return 1
    # The reload is done in the background; the daemon answers again once it has the new set.
    wait_ready 120
}

case $1 in
    status)
        status
        exit $?
        ;;
    start)
        need_clamd
        take_lock
        start
        exit $?
        ;;
    stop)
        take_lock
        installed || log "clamd is not installed on this node; nothing to stop"
        stop
        exit $?
        ;;
    restart)
        need_clamd
        take_lock
        stop
        start
        exit $?
        ;;
    reload)
        need_clamd
        take_lock
        reload
        exit $?
        ;;
    *)
        echo "usage: $0 start|stop|restart|reload|status" >&2
        exit 1
        ;;
esac
