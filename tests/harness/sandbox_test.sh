#!/bin/bash
# Checks the sandbox from the host: what happens inside stays inside, and what the tests rely on is
# there.   sandbox_test.sh SANDBOX BUILD_DIR
set -u
sandbox=$1
build=$2
name="qsv-isolation-$$-$RANDOM"
failures=0
check() {  # check DESCRIPTION COMMAND...
    local what=$1; shift
    if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; failures=$((failures + 1)); fi
}

passwd_before=$(sha256sum /etc/passwd)
inside=$("$sandbox" --build "$build" -- sh -c "
    touch /var/packages/$name /tmp/$name /volume1/$name /var/lock/quillon_server/$name
    echo '$name:x:4242:4242::/:/bin/false' >> /etc/passwd
    getent passwd Quillon-Server >/dev/null && echo user=yes
    test -S /dev/log && echo devlog=yes
    test -c /dev/null && echo devnull=yes
    echo links=\$(ip -o link show | wc -l)
    echo target=\$(readlink /var/packages/Quillon-Server/target)
    test -L /var/packages/Quillon-Server/target/sbin/postmap && echo postmap=yes
    logger -t sandboxtest hello-$name
    sleep 0.2
    grep -c 'hello-$name' /run/qsv-sandbox/syslog | sed 's/^/logged=/'
    sleep 3001.5 &
    exit 7")
rc=$?

check "exit status of the command comes back" [ "$rc" = 7 ]
check "the package user exists inside" grep -qx 'user=yes' <<<"$inside"
check "/dev/log is a socket inside" grep -qx 'devlog=yes' <<<"$inside"
check "/dev/null still works inside" grep -qx 'devnull=yes' <<<"$inside"
check "only loopback inside" grep -qx 'links=1' <<<"$inside"
check "target points into /volume1" grep -qx 'target=/volume1/@appstore/Quillon-Server' <<<"$inside"
check "the package links the real postmap" grep -qx 'postmap=yes' <<<"$inside"
check "system log lines are captured" grep -qx 'logged=1' <<<"$inside"
check "/var/packages untouched" [ ! -e "/var/packages/$name" ]
check "/tmp untouched" [ ! -e "/tmp/$name" ]
check "/volume1 untouched" [ ! -e "/volume1/$name" ]
check "/run/lock untouched" [ ! -e "/run/lock/quillon_server/$name" ]
check "/etc/passwd untouched" [ "$(sha256sum /etc/passwd)" = "$passwd_before" ]
sleep 0.2
check "processes left inside are gone" bash -c '! pgrep -f "sleep 300[1].5" >/dev/null'

echo "$((14 - failures)) passed, $failures failed"
[ "$failures" = 0 ]
