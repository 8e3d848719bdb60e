#!/bin/bash
# This node's IMAP and POP3 server (Dovecot), with the package's own configuration
# (etc/dovecot/dovecot.conf of the package, written by bin/kolt_gen_dovecot_conf from the
# settings) and never the machine's /etc/dovecot. The library runs it by path:
#
#   dovecot.sh start|stop|restart|reload|status
#
# IMAP listens on 143 and POP3 on 110 of loopback while their switches are on; IMAPS (993) and
# POP3S (995) need the certificate that the first start makes in etc/dovecot/ssl. On a member
# of a cluster of two or more, doveadm's server also listens on the node's cluster address (port
# 24245), where the peers sync their mailboxes into this node's: Dovecot then runs even with IMAP
# and POP3 off, since a member that can't take mailboxes would miss the mail its users get
# elsewhere. With nothing of the three to serve, start leaves Dovecot stopped and succeeds, and
# reload stops a running one (or, finding none, succeeds). A configuration that the writer refuses is never put in place: start then
# fails, and reload fails with the running Dovecot left on its old configuration. status exits 0
# only while our Dovecot runs and answers. Where Dovecot is not installed every word but stop
# fails and says so.

target=/var/packages/Quillon-Server/target
conf_dir=$target/etc/dovecot
conf=$conf_dir/dovecot.conf
ssl_dir=$conf_dir/ssl
cert=$ssl_dir/dovecot.pem
key=$ssl_dir/dovecot.key
run=/var/run/quillon_server
lock=/var/lock/quillon_server/dovecot_daemon.lock

dovecot=$target/sbin/dovecot
doveconf=$target/bin/doveconf
doveadm=$target/bin/doveadm
gen_conf=$target/bin/kolt_gen_dovecot_conf

# The configuration writer names the same three places.
base_dir=$run/dovecot
state_dir=$target/var/lib/dovecot
log_dir=$target/var/log
pid_file=$base_dir/master.pid

daemon=Dovecot
. "${BASH_SOURCE%/*}/daemon_common.sh"

log() {
    echo "dovecot.sh: $*" >&2
    logger -t dovecot.sh -p mail.err -- "$*" 2>/dev/null
}

installed() {
    tool_installed "$dovecot" "$doveconf"
}

need_dovecot() {
    if ! installed; then
        log "Dovecot is not installed on this node ($dovecot leads to no program)"
        exit 1
    fi
}

# Prints the pid of our Dovecot master when its pid file names a live one. A stale pid file may
# name a process that has since reused the number, hence the name check.
running_pid() {
    local pid exe
    pid=$(live_pid_in "$pid_file") || return 1
    exe=$(tr '\0' '\n' <"/proc/$pid/cmdline" 2>/dev/null | head -n 1)
    [ "${exe##*/}" = dovecot ] || return 1
    echo "$pid"
}

# The port of listener $2 of service $1 in the live configuration; 0 when it is off.
listener_port() {
    local port
    port=$("$doveconf" -c "$conf" -h "service/$1/inet_listener/$2/port" 2>/dev/null)
    case $port in '' | *[!0-9]*) echo 0 ;; *) echo "$port" ;; esac
}

# Whether a greeting that starts with $2 comes from port $1 of loopback.
greets() {
    (
        exec 3<>"/dev/tcp/127.0.0.1/$1" || exit 1
        read -r -t 5 reply <&3 || exit 1
        [[ $reply == "$2"* ]]
    ) 2>/dev/null
}

# Every plain listener of the configuration greets, and the master's own services answer
# doveadm (the TLS listeners are served by the same login processes).
answers() {
    local imap pop3
    imap=$(listener_port imap-login imap)
    pop3=$(listener_port pop3-login pop3)
    [ "$imap" = 0 ] || greets "$imap" "* OK" || return 1
    [ "$pop3" = 0 ] || greets "$pop3" "+OK" || return 1
    "$doveadm" -c "$conf" who >/dev/null 2>&1
}

status() {
    installed || return 1
    [ -f "$conf" ] && running_pid >/dev/null && answers
}

# Waits up to $1 seconds until our Dovecot answers.
wait_ready() {
    local i
    for ((i = 0; i < $1 * 10; i++)); do
        running_pid >/dev/null && answers && return 0
        sleep 0.1
    done
    return 1
}

prepare_folders() {
    mkdir -p "$conf_dir" "$run" "$state_dir" "$log_dir" || return 1
    chmod 0755 "$conf_dir" "$state_dir"
}

# A self-signed certificate for the TLS listeners, made once; a real one may replace the two
# files. Without it IMAPS and POP3S stay off, and the rest runs.
make_certificate() {
    local name tmp_key tmp_cert
    [ -s "$cert" ] && [ -s "$key" ] && return 0
    if ! command -v openssl >/dev/null; then
        log "no openssl on this node to make a certificate: IMAPS and POP3S stay off"
        return 1
    fi
    mkdir -p "$ssl_dir" && chmod 0755 "$ssl_dir" || return 1
    name=$(hostname 2>/dev/null)
    case $name in '' | *[!A-Za-z0-9.-]*) name=localhost ;; esac
    tmp_key=$(mktemp "$ssl_dir/.key.XXXXXX") || return 1
    tmp_cert=$(mktemp "$ssl_dir/.cert.XXXXXX") || { rm -f "$tmp_key"; return 1; }
    if ! openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -subj "/CN=$name" \
            -keyout "$tmp_key" -out "$tmp_cert" </dev/null >/dev/null 2>&1; then
        rm -f "$tmp_key" "$tmp_cert"
        log "openssl could not make a certificate: IMAPS and POP3S stay off"
        return 1
    fi
    # The key is read by Dovecot's master, which runs as root, and by nobody else.
    chmod 0600 "$tmp_key" && chmod 0644 "$tmp_cert" &&
        mv -f "$tmp_key" "$key" && mv -f "$tmp_cert" "$cert"
}

# The configuration from the settings; false (the writer said why) when it was refused.
write_config() {
    "$gen_conf" write </dev/null
}

# Whether the live configuration serves any protocol, or the cluster's mailbox sync.
serves_something() {
    [ -n "$("$doveconf" -c "$conf" -h protocols 2>/dev/null)" ] ||
        [ "$(listener_port doveadm cluster_sync)" != 0 ]
}

start() {
    status && return 0
    prepare_folders || { log "cannot prepare $conf_dir, $run, $state_dir and $log_dir"; return 1; }
    make_certificate
    write_config || { log "the configuration was refused; Dovecot is not started"; return 1; }
    if ! serves_something; then
        log "IMAP and POP3 are both off and no peer syncs mailboxes here; Dovecot is not started"
        return 0
    fi
    # The master leaves the foreground once its listeners are bound, or fails before.
    if ! "$dovecot" -c "$conf" </dev/null >/dev/null 2>&1 9>&-; then
        log "Dovecot refused to start; see $log_dir/dovecot.log"
        return 1
    fi
    if ! wait_ready 30; then
        log "Dovecot did not answer within 30 s; see $log_dir/dovecot.log"
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
    local pid
    if ! pid=$(running_pid); then
        # Two appliers may meet here (the writer of a change and this node's key watcher): when
        # the first one stopped Dovecot because nothing is left to serve, the second one finds
        # the configuration taken up already.
        if write_config; then
            if ! serves_something; then
                log "IMAP and POP3 are both off and no peer syncs mailboxes here; Dovecot stays stopped"
                return 0
            fi
            # With IMAP and POP3 off only the mailbox sync is left to serve: this node has just
            # become a member of a larger cluster (its watcher reloads for that), and it must
            # take its peers' mailboxes. Dovecot stopped with IMAP or POP3 on was stopped on
            # purpose, and a reload doesn't undo that.
            if [ -z "$("$doveconf" -c "$conf" -h protocols 2>/dev/null)" ]; then
                start
                return
            fi
        fi
        log "Dovecot is not running; nothing to reload"
        return 1
    fi
    write_config || { log "the configuration was refused; Dovecot keeps the old one"; return 1; }
    if ! serves_something; then
        log "IMAP and POP3 are both off now and no peer syncs mailboxes here; Dovecot stops"
        stop
        return 0
    fi
    # On SIGHUP the master reads the configuration again, opens and closes listeners to match,
    # and starts new processes with it.
    kill -HUP "$pid" || return 1
    if ! wait_ready 30; then
        log "Dovecot did not answer within 30 s after the reload; see $log_dir/dovecot.log"
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
        need_dovecot
        take_lock
        start
        exit $?
        ;;
    stop)
        take_lock
        installed || log "Dovecot is not installed on this node; nothing to stop"
        stop
        exit $?
        ;;
    restart)
        need_dovecot
        take_lock
        stop
        start
        exit $?
        ;;
    reload)
        need_dovecot
        take_lock
        reload
        exit $?
        ;;
    *)
        echo "usage: $0 start|stop|restart|reload|status" >&2
        exit 1
        ;;
esac
