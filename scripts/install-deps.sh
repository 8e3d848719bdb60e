#!/bin/sh
# Installs, on a Debian machine as root, everything the build, the tests and the demo use.
# Safe to run again: packages already present are skipped, the user is made once.
set -eu

PKGS="build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
 libgtest-dev libgmock-dev googletest libbenchmark-dev faketime
 libjsoncpp-dev libboost-dev libsqlite3-dev sqlite3 libssl-dev libmemcached-dev libcurl4-openssl-dev
 libgeoip-dev libhiredis-dev libidn2-dev
 redis-server redis-tools memcached postfix postfix-pcre iproute2 util-linux procps
 dovecot-core dovecot-imapd dovecot-pop3d
 spamassassin spamd spamc clamav clamav-daemon clamdscan
 chromium-headless-shell fonts-dejavu-core gnuplot-nox
 rsync openssh-server openssh-client openssl file offlineimap3 python3 passwd"

missing=""
for p in $PKGS; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $p"
done

if [ -n "$missing" ]; then
    export DEBIAN_FRONTEND=noninteractive
    # Postfix must not ask questions nor configure itself as a live mailer.
    echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections
    echo "postfix postfix/mailname string localhost" | debconf-set-selections
    apt-get update -qq
    # Packages start their daemons on install; the tests run their own on loopback inside a sandbox.
    printf '#!/bin/sh\nexit 101\n' > /usr/sbin/policy-rc.d
    chmod 755 /usr/sbin/policy-rc.d
    apt-get install -y -qq --no-install-recommends $missing
    rm -f /usr/sbin/policy-rc.d
fi

# The package user. The sandbox adds its own copy inside its /etc overlay; the demo and a real
# deployment need it on the machine.
if ! getent group Quillon-Server >/dev/null; then
    groupadd --system Quillon-Server
fi
if ! getent passwd Quillon-Server >/dev/null; then
    useradd --system --gid Quillon-Server --home-dir /var/packages/Quillon-Server/home \
        --no-create-home --shell /usr/sbin/nologin Quillon-Server
fi
