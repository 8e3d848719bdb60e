#!/bin/bash
# The cluster's hole in the platform firewall: the nodes of a cluster must reach each other's
# backend, file buffer and mail ports. The library runs it by path, as root:
#
#   firewall.sh start "IP1 IP2 ..."   let the listed node addresses (IPv4 or IPv6) in
#   firewall.sh stop                  close the hole again
#   firewall.sh status                print the recorded state
#
# This machine's platform keeps its firewall as state under /usr/kolt/etc/firewall/, and so does
# this script: it records the addresses it was given and whether the cluster rules are on in
# cluster.json there, for the platform and for anyone who wants to check. It never touches the
# kernel's packet filter itself. A list with one address that isn't one changes nothing and exits 1.

set -u

dir=/usr/kolt/etc/firewall
state=$dir/cluster.json
lock=$dir/cluster.lock

usage() {
    echo "usage: firewall.sh start \"IP1 IP2 ...\" | stop | status" >&2
    exit 1
}

is_ipv4() {
    local IFS=. octets octet
    [[ $1 =~ ^[0-9]{1,3}(\.[0-9]{1,3}){3}$ ]] || return 1
    read -r -a octets <<<"$1"
    for octet in "${octets[@]}"; do
        # No leading zeros: "010" would mean 8 to some tools and 10 to others.
        [[ $octet == 0 || $octet != 0* ]] || return 1
        ((10#$octet <= 255)) || return 1
    done
}

is_ipv6() {
    local address=$1 groups=0 head tail part group
    local -a parts
    [[ $address == *:* && $address =~ ^[0-9A-Fa-f:.]+$ ]] || return 1
    # An IPv4 tail ("::ffff:10.0.0.1") stands for two groups.
    if [[ $address == *.* ]]; then
        is_ipv4 "${address##*:}" || return 1
        address="${address%:*}:0:0"
    fi
    if [[ $address == *::* ]]; then
        head=${address%%::*}
        tail=${address#*::}
        [[ $tail != *::* ]] || return 1
        for part in "$head" "$tail"; do
            [ -z "$part" ] && continue
            IFS=: read -r -a parts <<<"$part"
            [[ $part != :* && $part != *: ]] || return 1
            for group in "${parts[@]}"; do
                [[ $group =~ ^[0-9A-Fa-f]{1,4}$ ]] || return 1
                groups=$((groups + 1))
            done
        done
        ((groups <= 7))
    else
        [[ $address != :* && $address != *: ]] || return 1
        IFS=: read -r -a parts <<<"$address"
        for group in "${parts[@]}"; do
            [[ $group =~ ^[0-9A-Fa-f]{1,4}$ ]] || return 1
            groups=$((groups + 1))
        done
        ((groups == 8))
    fi
}

# Replaces the state file as a whole, so that a reader never sees half of it.
record() {
    local running=$1 tmp
    shift
    local list="" address
    for address in "$@"; do
        list+="${list:+, }\"$address\""
    done
    tmp=$(mktemp "$state.XXXXXX") || return 1
    printf '{"running": %s, "addresses": [%s]}\n' "$running" "$list" >"$tmp" &&
        chmod 0644 "$tmp" && mv -f "$tmp" "$state" || { rm -f "$tmp"; return 1; }
}

mkdir -p "$dir" || exit 1
# Runs of this script for one node may overlap (a stop on failure after a start); one at a time.
exec 9>>"$lock" || exit 1
command -v flock >/dev/null && flock 9

case ${1:-} in
    start)
        # The library passes the list as one word; separate words are taken as well.
        shift
        read -r -a addresses <<<"$*"
        for address in "${addresses[@]}"; do
            if ! is_ipv4 "$address" && ! is_ipv6 "$address"; then
                echo "firewall.sh: not an IP address: $address" >&2
                exit 1
            fi
        done
        record true "${addresses[@]}" || exit 1
        ;;
    stop)
        record false || exit 1
        ;;
    status)
        if [ -f "$state" ]; then
            cat "$state"
        else
            echo '{"running": false, "addresses": []}'
        fi
        ;;
    *)
        usage
        ;;
esac
exit 0
