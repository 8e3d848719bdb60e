#!/bin/bash
# This node's part of the cluster: the key store (Redis on 8500), the file buffer (memcached on
# 8502, on the master balancer only) and the key watcher. The library runs it by path:
#
#   ClusterDaemon.sh status|start|stop|backend_restart|watch_restart
#   ClusterDaemon.sh create_quillon_share_env PATH
#   ClusterDaemon.sh generate_certificate ID IP [MASTER_IP...]
#
# A node belongs to a cluster while etc/redis/redis.conf exists; without it there is nothing to
# run. status exits 0 only when this node's store answers and, on a replica, is linked to its
# master.

target=/var/packages/Quillon-Server/target
etc=/var/packages/Quillon-Server/etc
conf=$etc/mailconf.d
redis_conf=$etc/redis/redis.conf
run=/var/run/quillon_server
lock=/var/lock/quillon_server/cluster_daemon.lock

tool=$target/usr/bin/kolt-quillon-server-go-utils
redis_cli=$target/bin/redis-cli
redis_server=$target/bin/redis-server
memcached=$target/bin/memcached
watcher=$target/usr/bin/kolt-quillon-server-key-watcher
request_service=$target/usr/bin/kolt-quillon-server-request-service

redis_pid=$run/redis.pid
memcached_pid=$run/file_buffer_memcached.pid
watcher_pid=$run/key_watcher.pid
watcher_ready=$run/key_watcher.ready
request_pid=$run/request_service.pid

redis_port=8500
memcached_port=8502

log() {
    echo "ClusterDaemon.sh: $*" >&2
}

# Runs redis-cli against this node's store. The password travels in the environment, which other
# users cannot read, rather than on the command line, which they can.
password=$("$tool" conf-value --file "$etc/backend.conf" --member password 2>/dev/null)
cli() {
    if [ -n "$password" ]; then
        REDISCLI_AUTH=$password timeout 5 "$redis_cli" -h 127.0.0.1 -p $redis_port "$@" 2>/dev/null
    else
        env -u REDISCLI_AUTH timeout 5 "$redis_cli" -h 127.0.0.1 -p $redis_port "$@" 2>/dev/null
    fi
}

redis_answers() {
    [ "$(cli ping)" = PONG ]
}

memcached_answers() {
    (
        exec 3<>"/dev/tcp/127.0.0.1/$memcached_port" || exit 1
        printf 'version\r\n' >&3
        read -r -t 2 reply <&3 || exit 1
        [[ $reply == VERSION* ]]
    ) 2>/dev/null
}

# True while process $1 exists and has not ended (an ended child whose parent has not collected
# it yet still has a pid, but is gone for our purposes).
alive() {
    local stat
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    stat=${stat##*) }
    [ "${stat%% *}" != Z ]
}

# Prints the pid kept in pid file $1 when that process is alive and runs program $2. A stale pid
# file may name a process that has since reused the number, hence the name check.
running_pid() {
    local pid="" cmdline
    [ -r "$1" ] && read -r pid <"$1"
    case $pid in '' | *[!0-9]*) return 1 ;; esac
    alive "$pid" || return 1
    cmdline=$(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null)
    [[ " $cmdline " == *"/$2 "* || " $cmdline " == *" $2 "* ]] || return 1
    echo "$pid"
}

# Waits until process $1 is gone; after $2 seconds it is killed.
wait_gone() {
    local i
    for ((i = 0; i < $2 * 10; i++)); do
        alive "$1" || return 0
        sleep 0.1
    done
    log "process $1 did not stop in $2 s; killing it"
    kill -KILL "$1" 2>/dev/null
    sleep 0.1
}

# Stops the program of pid file $1 named $2 with SIGTERM.
stop_by_pid_file() {
    local pid
    if pid=$(running_pid "$1" "$2"); then
        kill -TERM "$pid" 2>/dev/null
        wait_gone "$pid" 10
    fi
    rm -f "$1"
}

# The balancer master node's id is mirrored in mailconf.d; this node is it when the ids agree.
is_master_balancer() {
    local master me
    master=$("$tool" conf-value --file "$conf/balancer_master_node" 2>/dev/null) || return 1
    me=$("$tool" conf-value --file "$conf/local_id_file" --member id 2>/dev/null) || return 1
    [ -n "$me" ] && [ "$master" = "$me" ]
}

# Daemons are started with the lock's descriptor closed (9>&-): one that kept it would hold the
# lock for as long as it runs.

start_redis() {
    local i
    redis_answers && return 0
    mkdir -p "$run"
    # What Redis writes (its rewritten configuration with the password, its data files) is for
    # root and the package user only.
    if ! (umask 077 && exec "$redis_server" "$redis_conf" </dev/null >/dev/null 2>&1 9>&-); then
        log "redis-server refused to start with $redis_conf; see its log file"
        return 1
    fi
    # Loading a large append-only file takes a while; the store answers LOADING until done.
    for ((i = 0; i < 100; i++)); do
        redis_answers && return 0
        sleep 0.1
    done
    log "the key store did not answer within 10 s"
    return 1
}

stop_redis() {
    local pid
    pid=$(running_pid "$redis_pid" redis-server)
    # SHUTDOWN still flushes the append-only file; NOSAVE only skips the snapshot.
    if redis_answers; then
        cli shutdown nosave >/dev/null
    elif [ -n "$pid" ]; then
        kill -TERM "$pid" 2>/dev/null
    fi
    if [ -n "$pid" ]; then
        wait_gone "$pid" 15
    fi
    local i
    for ((i = 0; i < 50; i++)); do
        redis_answers || return 0
        sleep 0.1
    done
    log "the key store on port $redis_port still answers"
    return 1
}

start_memcached() {
    local i user=() pid
    mkdir -p "$run"
    # memcached refuses to run as root unless told to.
    [ "$(id -u)" = 0 ] && user=(-u root)
    # A whole file is one value, and the spam databases run to tens of megabytes: the default
    # 1 MB item limit would refuse them.
    # Other nodes fetch from it over the cluster network: loopback and this node's own address,
    # never every interface.
    local listen=127.0.0.1 me address
    me=$("$tool" conf-value --file "$conf/local_id_file" --member id 2>/dev/null)
    if [ -n "$me" ]; then
        address=$("$tool" conf-value --file "$conf/mapping_table" --member "mapping_table/$me" \
            2>/dev/null || "$tool" conf-value --file "$conf/mapping_table" --member "$me" 2>/dev/null)
        [[ $address =~ ^[0-9.]+$ && $address != 127.0.0.1 ]] && listen+=",$address"
    fi
    # A buffer that still listens on the address this node had before its address changed is
    # out of the peers' reach: it starts again on the new one.
    if pid=$(running_pid "$memcached_pid" memcached); then
        tr '\0' ' ' <"/proc/$pid/cmdline" | grep -qF -- " -l $listen " && return 0
        stop_by_pid_file "$memcached_pid" memcached
    elif memcached_answers; then
        return 0
    fi
    if ! "$memcached" -d "${user[@]}" -l "$listen" -p $memcached_port -U 0 -m 1024 -I 128m \
            -P "$memcached_pid" </dev/null >/dev/null 2>&1 9>&-; then
        log "memcached refused to start"
        return 1
    fi
    for ((i = 0; i < 50; i++)); do
        memcached_answers && return 0
        sleep 0.1
    done
    log "the file buffer did not answer on port $memcached_port within 5 s"
    return 1
}

start_watcher() {
    [ -x "$watcher" ] || return 0
    running_pid "$watcher_pid" "${watcher##*/}" >/dev/null && return 0
    mkdir -p "$run"
    # Not a group leader (no job control here), so setsid runs the watcher itself and $! is its
    # pid.
    setsid "$watcher" </dev/null >/dev/null 2>&1 9>&- &
    echo $! >"$watcher_pid"
}

stop_watcher() {
    stop_by_pid_file "$watcher_pid" "${watcher##*/}"
    rm -f "$watcher_ready"
}

# Waits up to $1 seconds for the watcher's first catch-up (the mirrors of every setting, the
# services' flags, the files queued for this node).
wait_watcher_ready() {
    local i
    for ((i = 0; i < $1 * 10; i++)); do
        [ -e "$watcher_ready" ] && return 0
        sleep 0.1
    done
    log "the key watcher has not caught up within $1 s"
    return 1
}

# The service that answers other nodes' requests (files they send this node).
start_request_service() {
    [ -x "$request_service" ] || return 0
    running_pid "$request_pid" "${request_service##*/}" >/dev/null && return 0
    mkdir -p "$run"
    setsid "$request_service" </dev/null >/dev/null 2>&1 9>&- &
    echo $! >"$request_pid"
}

# The node's certificate, signed by the cluster's internal CA. The first master makes the CA; a
# node that joins an existing cluster gets the CA from the join ticket that
# `mailserverctl member join` stages in etc/join/. Keys are root's alone.
generate_certificate() {
    local id=$1 ip=$2 first=${3:-$2}
    local ca=$etc/internal-ca-ssl ssl=$etc/internal-ssl join=$etc/join tmp
    if [[ ! $id =~ ^[A-Za-z0-9_.-]+$ || $id == . || $id == .. || ! $ip =~ ^[0-9A-Fa-f:.]+$ ]]; then
        log "generate_certificate: bad node id or address"
        return 1
    fi
    (umask 077 && mkdir -p "$ca" "$ssl") || return 1
    if [ -s "$join/ca.key" ] && [ -s "$join/ca.crt" ]; then
        install -m 0600 "$join/ca.key" "$ca/ca.key" && install -m 0644 "$join/ca.crt" "$ca/ca.crt" ||
            return 1
    elif [ ! -s "$ca/ca.key" ]; then
        if [ "$ip" != "$first" ]; then
            log "generate_certificate: no CA of the cluster for a node that is not its first master"
            return 1
        fi
        (umask 077 && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
            -keyout "$ca/ca.key" -out "$ca/ca.crt" -days 3650 \
            -subj "/CN=Quillon Server internal CA" 2>/dev/null) || return 1
        chmod 0644 "$ca/ca.crt"
    fi
    tmp=$(mktemp -d) || return 1
    if ! (umask 077 && openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
            -keyout "$ssl/node.key" -out "$tmp/node.csr" -subj "/CN=$id" 2>/dev/null &&
            printf 'subjectAltName=IP:%s\n' "$ip" >"$tmp/ext" &&
            openssl x509 -req -in "$tmp/node.csr" -CA "$ca/ca.crt" -CAkey "$ca/ca.key" \
                -set_serial "0x$(openssl rand -hex 16)" -days 3650 -extfile "$tmp/ext" \
                -out "$ca/$id.crt" 2>/dev/null); then
        rm -rf "$tmp"
        log "generate_certificate: openssl failed"
        return 1
    fi
    rm -rf "$tmp"
    chmod 0644 "$ca/$id.crt"
    cp "$ca/$id.crt" "$ssl/node.crt"
    openssl verify -CAfile "$ca/ca.crt" "$ssl/node.crt" >/dev/null
}

status() {
    local info role
    [ -f "$redis_conf" ] || return 1
    redis_answers || return 1
    info=$(cli info replication | tr -d '\r')
    role=$(sed -n 's/^role://p' <<<"$info")
    case $role in
        master) return 0 ;;
        slave) [ "$(sed -n 's/^master_link_status://p' <<<"$info")" = up ] ;;
        *) return 1 ;;
    esac
}

need_cluster() {
    if [ ! -f "$redis_conf" ]; then
        log "this node is not part of a cluster: $redis_conf is missing"
        exit 1
    fi
}

# The folder PATH that peers copy files into and out of over ssh (root's, writable by the package
# group), and the package's ssh key folder beside it, which the package's ssh insists is root's
# alone. PATH is refused unless it lies on a volume, outside the installed package, and every
# folder above it is root's and closed to others, so that nobody can bend it elsewhere with a link
# while it is being made.
create_share_env() {
    local path=$1 real dir owner mode
    if [[ $path != /* || $path == *[[:cntrl:]]* || /$path/ == */../* ]]; then
        log "share folder must be an absolute path without '..' or control characters"
        return 1
    fi
    real=$(realpath -m -- "$path") || return 1
    if [[ ! $real =~ ^/volume[0-9]+/[^/]+ || $real == /volume*/@appstore || $real == /volume*/@appstore/* ]]; then
        log "share folder ${real@Q} is not a folder on a volume outside the package"
        return 1
    fi
    dir=${real%/*}
    while [ -n "$dir" ]; do
        if [ -e "$dir" ]; then
            read -r owner mode < <(stat -c '%u %a' -- "$dir")
            if [ "$owner" != 0 ] || (( (8#$mode & 8#022) != 0 )); then
                log "share folder ${real@Q}: ${dir@Q} may be changed by others than root"
                return 1
            fi
        fi
        dir=${dir%/*}
    done
    if ! mkdir -p -- "$real" || [ -L "$real" ] || ! chown root:Quillon-Server -- "$real" ||
            ! chmod 0770 -- "$real"; then
        log "cannot make share folder ${real@Q}"
        return 1
    fi
    if ! mkdir -p -- "$etc/ssh" || ! chown root:root -- "$etc/ssh" || ! chmod 0700 -- "$etc/ssh" ||
            ! touch -- "$etc/ssh/known_hosts" || ! chmod 0600 -- "$etc/ssh/known_hosts"; then
        log "cannot make the key folder $etc/ssh"
        return 1
    fi
    return 0
}

# Starts, stops and restarts are serialised; status is not, since it changes nothing.
take_lock() {
    mkdir -p "${lock%/*}"
    exec 9>"$lock"
    flock -w 60 9 || log "waited 60 s for $lock; going on without it"
}

# The library caches the answer of status in this directory, and the daemons of the suite keep
# their service states there; it lives in /tmp and so must be made again after each boot.
mkdir -p /tmp/quillon_server/service_status

case $1 in
    status)
        status
        exit $?
        ;;
    start)
        need_cluster
        take_lock
        start_redis || exit 1
        if is_master_balancer; then
            start_memcached
        fi
        start_watcher
        start_request_service
        redis_answers
        exit $?
        ;;
    stop)
        take_lock
        stop_watcher
        stop_by_pid_file "$request_pid" "${request_service##*/}"
        stop_by_pid_file "$memcached_pid" memcached
        stop_redis
        exit 0
        ;;
    backend_restart)
        need_cluster
        take_lock
        stop_redis
        start_redis
        exit $?
        ;;
    watch_restart)
        take_lock
        if [ -x "$watcher" ]; then
            stop_watcher
            start_watcher
            # The caller goes on with this node's settings in place, a joining node's above all.
            wait_watcher_ready 60
        fi
        exit 0
        ;;
    create_quillon_share_env)
        [ $# -eq 2 ] || { log "usage: $0 create_quillon_share_env PATH"; exit 1; }
        create_share_env "$2"
        exit $?
        ;;
    generate_certificate)
        [ $# -ge 3 ] || { log "usage: $0 generate_certificate ID IP [MASTER_IP...]"; exit 1; }
        take_lock
        generate_certificate "${@:2}"
        exit $?
        ;;
    *)
        echo "usage: $0 status|start|stop|backend_restart|watch_restart" >&2
        echo "       $0 create_quillon_share_env PATH" >&2
        echo "       $0 generate_certificate ID IP [MASTER_IP...]" >&2
        exit 1
        ;;
esac
