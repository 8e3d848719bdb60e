#!/bin/bash
# This node's spam filter daemon (spamd), on loopback only, with the package's own site
# configuration (etc/spamassassin, written by bin/kolt_set_config) and never the machine's. The
# library runs it by path:
#
#   SpamDaemon.sh start|stop|restart|reload|status
#
# status exits 0 only while our spamd runs and answers. reload makes a running spamd read its
# configuration again; it fails when none runs. Where spamd is not installed every word but stop
# fails and says so; stop succeeds, since nothing runs.

target=/var/packages/Quillon-Server/target
site=$target/etc/spamassassin
learned=/var/spool/mail/spamassassin
run=/var/run/quillon_server
log_dir=$target/var/log
lock=/var/lock/quillon_server/spam_daemon.lock

spamd=$target/sbin/spamd
set_config=$target/bin/kolt_set_config
user=Quillon-Server

spamd_pid=$run/spamd.pid
spamd_log=$log_dir/spamd.log

# The package's own port, so that a spamd of the machine on the usual 783 is left alone; clients
# of this node give it with "spamc -p 8783". Above 1023, so that spamd can bind it again when it
# restarts itself on a reload.
address=127.0.0.1
port=8783

daemon=spamd
. "${BASH_SOURCE%/*}/daemon/daemon_common.sh"

log() {
    echo "SpamDaemon.sh: $*" >&2
}

installed() {
    tool_installed "$spamd"
}

need_spamd() {
    if ! installed; then
        log "spamd is not installed on this node ($spamd leads to no program)"
        exit 1
    fi
}

# Prints the pid of our spamd when its pid file names a live spamd. A stale pid file may name a
# process that has since reused the number, hence the name check; spamd renames itself to
# "spamd" once it is a daemon.
running_pid() {
    local pid cmdline
    pid=$(live_pid_in "$spamd_pid") || return 1
    cmdline=$(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null)
    [[ " $cmdline " == *"/spamd "* || " $cmdline " == *" spamd "* ]] || return 1
    echo "$pid"
}

# spamd's own health question: "PING" of its protocol, answered with "PONG".
answers() {
    (
        exec 3<>"/dev/tcp/$address/$port" || exit 1
        printf 'PING SPAMC/1.5\r\n\r\n' >&3
        read -r -t 5 reply <&3 || exit 1
        [[ $reply == SPAMD/*" 0 PONG"* ]]
    ) 2>/dev/null
}

# Waits up to $1 seconds until our spamd answers, and for a pid other than $2 when one is given
# (a reloading spamd starts over as a new process).
wait_ready() {
    local i pid
    for ((i = 0; i < $1 * 10; i++)); do
        if pid=$(running_pid) && [ "$pid" != "${2:-}" ] && answers; then
            return 0
        fi
        sleep 0.1
    done
    return 1
}

status() {
    installed || return 1
    running_pid >/dev/null && answers
}

# The folders spamd writes to as the package user: its log and what it learns.
prepare_folders() {
    mkdir -p "$run" "$log_dir" "$learned" || return 1
    chmod 0700 "$learned"
    if [ "$(id -u)" = 0 ]; then
        chown "$user:$user" "$log_dir" "$learned" || return 1
        [ -e "$spamd_log" ] && chown "$user:$user" "$spamd_log"
    fi
    return 0
}

start() {
    local as_user=()
    status && return 0
    # spamd with the machine's defaults would read /etc/spamassassin: without our folder it
    # does not run.
    if [ ! -f "$site/init.pre" ]; then
        if ! "$set_config" spam </dev/null >/dev/null; then
            log "no configuration in $site, and writing one failed"
            return 1
        fi
    fi
    prepare_folders || { log "cannot prepare $log_dir and $learned"; return 1; }
    # The children that read mail run as the package user; the master keeps root only to bind.
    [ "$(id -u)" = 0 ] && as_user=(--username="$user" --groupname="$user")
    # -d returns once the daemon is ready or has failed. No user preferences: the site's
    # configuration is the whole of it.
    if ! "$spamd" -d --pidfile="$spamd_pid" --listen="$address:$port" \
            --allowed-ips=127.0.0.1 --siteconfigpath="$site" --nouser-config \
            "${as_user[@]}" --syslog="$spamd_log" </dev/null >/dev/null 2>&1 9>&-; then
        log "spamd refused to start; see $spamd_log"
        return 1
    fi
    if ! wait_ready 30; then
        log "spamd did not answer on $address:$port within 30 s; see $spamd_log"
        return 1
    fi
    return 0
}

stop() {
    local pid
    if pid=$(running_pid); then
        kill -TERM "$pid" 2>/dev/null
        wait_gone "$pid" 15
    fi
    rm -f "$spamd_pid"
    return 0
}

reload() {
    local pid
    if ! pid=$(running_pid); then
        log "spamd is not running; nothing to reload"
        return 1
    fi
    # On SIGHUP spamd starts itself over with the same arguments and reads the configuration
    # anew, as a new process that writes the pid file again once it is ready.
    kill -HUP "$pid" || return 1
    if ! wait_ready 60 "$pid"; then
        log "spamd did not come back within 60 s after the reload; see $spamd_log"
        return 1
    fi
    return 0
}

case $1 in
    status)
        status
        exit $?
        ;;
    start)
        need_spamd
        take_lock
        start
        exit $?
        ;;
    stop)
        take_lock
        installed || log "spamd is not installed on this node; nothing to stop"
        stop
        exit $?
        ;;
    restart)
        need_spamd
        take_lock
        stop
        start
        exit $?
        ;;
    reload)
        need_spamd
        take_lock
        reload
        exit $?
        ;;
    *)
        echo "usage: $0 start|stop|restart|reload|status" >&2
        exit 1
        ;;
esac
