#!/bin/bash
# The demo's steps; scripts/demo.sh runs them inside the sandbox.   demo-steps.sh BUILD_DIR
set -euo pipefail
ctl="$1/tools/mailserverctl"
conf=/var/packages/Quillon-Server/etc/mailconf.d
tool=/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils

step() { printf '\n== %s\n' "$*"; }
show() { printf '$ %s\n' "$*"; "$@"; }

step "Make this machine a one-node cluster (twice: the second run changes nothing)"
show "$ctl" setup
show "$ctl" setup
show "$ctl" cluster status

step "Write settings: one key alone, then three in one batch, and read them back"
show "$ctl" conf set smtp_port 2525
show "$ctl" conf set smtp_banner "ESMTP ready" imap_port 1143 spam_enable yes
for k in smtp_port smtp_banner imap_port spam_enable; do
    printf '%-12s = %s\n' "$k" "$("$ctl" conf get "$k")"
done

step "The key file on this node and the value in the cluster's store, side by side"
printf 'file  %s: ' "$conf/smtp_port"; cat "$conf/smtp_port"
printf 'store mailserver/conf/smtp_port: '
"$tool" backend-command --command get --key mailserver/conf/smtp_port; echo

step "Stop the backend: a write is refused and nothing changes"
show "$ctl" backend stop
if "$ctl" conf set smtp_port 2626; then echo "UNEXPECTED: the write was accepted"; exit 1; fi
printf 'smtp_port is still %s\n' "$("$ctl" conf get smtp_port)"

step "Start it again: the same write goes through"
show "$ctl" backend start
show "$ctl" conf set smtp_port 2626
printf 'file: '; cat "$conf/smtp_port"
printf 'store: '; "$tool" backend-command --command get --key mailserver/conf/smtp_port; echo

step "Change the SMTP port through the typed settings object, as a web handler would"
show "$ctl" settings set smtp_port 2727 smtp_tls_enabled yes
"$ctl" settings show | grep -E '^(smtp_port|smtp_tls_enabled|smtps_port|smtp_main_domain) '
printf 'store: '; "$tool" backend-command --command get --key mailserver/conf/smtp_port; echo
echo "A value of the wrong type is refused and nothing is written:"
if "$ctl" settings set smtp_port 25x smtp_banner changed; then echo "UNEXPECTED"; exit 1; fi
"$ctl" settings show | grep -E '^(smtp_port|smtp_banner) '

step "Domains and the master balancer"
show "$ctl" domain add example.com
show "$ctl" domain add mail.example.org
show "$ctl" domain list
echo "No balancer daemon has reported yet, so none is alive and the election finds no master:"
show "$ctl" balancer elect
echo "The balancer daemon reports this node's balancer up (status 0), as it would on a real node:"
id=$("$tool" conf-value --file "$conf/local_id_file" --member id)
mkdir -p /tmp/quillon_server/service_status
printf '{"%s":"0"}\n' "$id" > /tmp/quillon_server/service_status/mailserver_service_balancer
show "$ctl" balancer elect

step "Sender quotas and the attachment filter, read back with Postfix's own postmap"
etc=/var/packages/Quillon-Server/target/etc
postmap=/var/packages/Quillon-Server/target/sbin/postmap
show "$ctl" quota set alice 200
show "$ctl" quota set bob 50
show "$ctl" quota list
show "$ctl" quota export
printf 'map: '; cat "$etc/sender_quota_map"
name=$(head -n 1 "$etc/sender_quota_map" | cut -d' ' -f1)
printf 'postmap -q %s -> %s\n' "$name" "$("$postmap" -q "$name" "hash:$etc/sender_quota_map")"
echo "A quota above 99999 is refused:"
if "$ctl" quota set carol 100000; then echo "UNEXPECTED"; exit 1; fi
show "$ctl" attachment add exe
show "$ctl" attachment export
for n in 'name="evil.exe"' 'name="report.pdf"' 'name="combat.txt"'; do
    printf 'postmap -q %-22s -> %s\n' "'$n'" "$("$postmap" -q "$n" "pcre:$etc/attachment_filter.pcre" || true)"
done

step "Aliases of a domain, nested and even circular, and the map Postfix reads"
for u in alice bob carol dave; do getent passwd "$u" >/dev/null || useradd -M "$u"; done
show "$ctl" alias add example.com team alice bob
show "$ctl" alias add example.com all alias:team carol
show "$ctl" alias add example.com ops alias:all dave
echo "team now contains ops, which contains all, which contains team:"
show "$ctl" alias add example.com team alias:ops
show "$ctl" alias members example.com ops
echo "Expanded, each final member once:"
show "$ctl" alias expand example.com ops
show "$ctl" alias export example.com /tmp/example.com.aliases
cat /tmp/example.com.aliases
/var/packages/Quillon-Server/target/sbin/postalias /tmp/example.com.aliases
printf 'postalias -q ops -> %s\n' "$(/var/packages/Quillon-Server/target/sbin/postalias -q ops /tmp/example.com.aliases)"
echo "An unknown domain is refused and nothing changes:"
if "$ctl" alias add nowhere.test x alice; then echo "UNEXPECTED"; exit 1; fi

step "Relays: a sender relay with credentials, a recipient relay for a Unicode domain"
show "$ctl" relay host mode multiple
show "$ctl" relay host add sender relay.example.net 587 example.com --tls --auth relayuser secret
show "$ctl" relay host add recipient smtp.bücher.example 25 bücher.example
show "$ctl" relay client add network 192.168.10.0/24
show "$ctl" relay client add domain bücher.example
show "$ctl" relay export
printf 'postmap -q %-22s sender_relay -> %s\n' @example.com \
    "$("$postmap" -q @example.com "hash:$etc/sender_relay" || true)"
printf 'postmap -q %-22s its password -> %s\n' "[relay.example.net]:587" \
    "$("$postmap" -q "[relay.example.net]:587" "hash:$etc/relay/sasl_passwd_relay-sender0" || true)"
for q in bücher.example xn--bcher-kva.example; do
    printf 'postmap -q %-22s transport -> %s\n' "$q" \
        "$("$postmap" -q "$q" "hash:$etc/relay_transport" || true)"
done
printf 'postmap -q %-22s relay_domains -> %s\n' xn--bcher-kva.example \
    "$("$postmap" -q xn--bcher-kva.example "hash:$etc/relay_domains" || true)"
echo "A port out of range is refused and nothing changes:"
if "$ctl" relay host add sender relay.example.net 65536 example.com; then echo "UNEXPECTED"; exit 1; fi

step "The spam filter: a black and white list imported as JSON, SpamAssassin's configuration written and linted, and a listed sender scored by spamd"
target=/var/packages/Quillon-Server/target
site=$target/etc/spamassassin
cat >/tmp/spam-lists.json <<'LISTS'
{
  "blacklist": { "from": { "address": ["offers@bulk-mailer.example"], "domain": ["casino.example"] } },
  "whitelist": { "from": { "domain": ["partner.example"] } }
}
LISTS
show "$ctl" spam blackwhite import --json /tmp/spam-lists.json
show "$ctl" spam blackwhite list
show "$ctl" spam set spam_enable yes spam_enable_rewrite yes spam_rewrite_subject "[SPAM]" \
    spam_required_score 5 spam_report_machanism 0
echo "What kolt_set_config wrote into $site, comments left out:"
grep -hv '^#' "$site/local.cf" "$site/blackwhite.cf"
show "$target/bin/spamassassin" --lint -L -x -p /dev/null --siteconfigpath="$site"
echo "lint: clean"
show "$target/scripts/SpamDaemon.sh" start
# A message through spamc, as the mail daemon would hand it over; only the headers that tell.
filtered() {
    printf 'From: %s\nTo: alice@example.com\nSubject: Monday meeting\nMessage-ID: <%s@example.net>\nDate: %s\n\nSee you on Monday.\n' \
        "$1" "$RANDOM" "$(date -R)" |
        "$target/bin/spamc" -d 127.0.0.1 -p 8783 |
        awk '/^$/ { exit } /^[^ \t]/ { keep = /^(Subject|X-Spam-Flag|X-Spam-Status):/ } keep'
}
echo "From a blacklisted sender:"
filtered "Offers <offers@bulk-mailer.example>"
echo "From a whitelisted domain:"
filtered "Pat <pat@partner.example>"
show "$target/scripts/SpamDaemon.sh" stop

step "The virus scanner: clamd started through the library, a file scanned clean, an extra signature set loaded and the same file found"
clamav=$target/share/clamav
mkdir -p "$clamav/extrasigs"
# No signatures come with the package and this machine reaches no update server: the demo
# brings a rule of its own as the base set, and a small extra set that names the sample.
printf 'rule DemoBaseMarker\n{\n  strings:\n    $a = "DEMO_BASE_MARKER"\n  condition:\n    $a\n}\n' \
    >"$clamav/demo-base.yar"
printf 'Demo.Extra.Marker:0:*:%s\n' "$(printf 'DEMO_EXTRA_MARKER' | od -An -tx1 | tr -d ' \n')" \
    >"$clamav/extrasigs/demo-extra.ndb"
printf 'Dear customer, DEMO_EXTRA_MARKER is in this letter.\n' >/tmp/demo-sample.txt
chmod 0644 /tmp/demo-sample.txt
show "$ctl" av service start
show "$target/bin/clamdscan" --no-summary /tmp/demo-sample.txt
show "$ctl" av count
show "$ctl" av extra-load
# The daemon loads the new set beside the old one and swaps them when it is ready.
for _ in $(seq 100); do
    "$target/bin/clamdscan" --no-summary /tmp/demo-sample.txt >/dev/null 2>&1 || break
    sleep 0.1
done
show "$target/bin/clamdscan" --no-summary /tmp/demo-sample.txt || true
show "$ctl" av count
show "$ctl" av service stop

step "The mail log: a month of traffic in the live file, the month before in the archive, Postfix's own lines added, one search over both in one date order, and the export rendered by a browser"
aggr=$target/var/aggr_log
gen="$1/tools/qsv-log-gen"
# The domains of the mail server's own users: what "local" means to the logs and the statistics.
show "$ctl" conf set virtual_multiple_domain "1/example.com"
show "$gen" --mail-db "$aggr/aggr_mail_log.db" --security-db "$aggr/aggr_security_log.db" \
    --from 2026-10-01 --days 31 --rows 5000 --seed 7 --domains example.com \
    --subject '<script>alert("pwned")</script> Invoice & more'
show "$gen" --mail-db "$aggr//aggr_mail_log_main.db" --from 2026-09-01 --days 30 --rows 3000 --seed 8 \
    --domains example.com
# Lines as Postfix writes them, turned into rows by the package's writer.
cat >/tmp/demo-postfix.log <<'LINES'
Oct 31 23:50:01 mx1 postfix/smtpd[2101]: 7A1B2C3D4E: client=mail.partner.example[198.51.100.20]
Oct 31 23:50:01 mx1 postfix/cleanup[2102]: 7A1B2C3D4E: message-id=<demo-1@partner.example>
Oct 31 23:50:01 mx1 postfix/qmgr[2050]: 7A1B2C3D4E: from=<pat@partner.example>, size=4242, nrcpt=1 (queue active)
Oct 31 23:50:02 mx1 postfix/local[2103]: 7A1B2C3D4E: to=<alice@example.com>, orig_to=<sales@example.com>, relay=local, delay=0.2, delays=0.1/0/0/0.1, dsn=2.0.0, status=sent (delivered to mailbox)
Oct 31 23:50:02 mx1 postfix/qmgr[2050]: 7A1B2C3D4E: removed
Oct 31 23:55:09 mx1 postfix/smtpd[2104]: NOQUEUE: reject: RCPT from unknown[203.0.113.9]: 554 5.7.1 <bob@example.com>: Relay access denied; from=<spam@bulk.example> to=<bob@example.com> proto=ESMTP helo=<bulk.example>
LINES
show "$1/tools/qsv-log-writer" --year 2026 /tmp/demo-postfix.log
show "$ctl" log count
show "$ctl" log search pat@partner.example
show "$ctl" security-log search spam@bulk.example
echo "Rows 2998 to 3003 by date: the last of September come from the archive, October's from the live file:"
show "$ctl" log list --sort date --order asc --offset 2997 --limit 6 | cut -f1-4
show "$ctl" log filter --status local-receive --date-from 2026-10-01 --date-to 2026-10-07 --count
show "$ctl" log export --subject Invoice --output /tmp/demo-mail-log.html
echo "The subject with markup, as the document holds it:"
grep -o '<td align="center">&lt;script&gt;[^<]*</td>' /tmp/demo-mail-log.html | head -n 1
chromium-headless-shell --no-sandbox --disable-gpu --hide-scrollbars --window-size=1400,400 \
    --screenshot=/tmp/demo-mail-log.png file:///tmp/demo-mail-log.html >/dev/null 2>&1
png_size=$(stat -c %s /tmp/demo-mail-log.png)
echo "Rendered by Chromium into /tmp/demo-mail-log.png: $png_size bytes"
[ "$png_size" -gt 1000 ] || { echo "UNEXPECTED: an empty rendering"; exit 1; }

step "Statistics: the month counted hour by hour by the aggregation job, the four charts drawn, the threat origins in real cities, a domain ranking"
show "$1/tools/qsv-geoip-gen" "$target/etc/geoip"
show "$ctl" stats count --from 2026-10-01 --to 2026-10-31
show "$ctl" stats show day --at 2026-10-31
for scale in hour day week month; do
    "$ctl" stats chart "$scale" --at 2026-10-31 --png "/tmp/demo-chart-$scale.png"
    echo "the $scale chart: $(file -b "/tmp/demo-chart-$scale.png")"
done
# The threat pass works from the job's own hour on; the clock is set back to the month's first
# hour for it, as if the job had been running since.
echo '$ faketime "2026-10-01 00:00:00" mailserverctl stats threats'
ASAN_OPTIONS=verify_asan_link_order=0 faketime "2026-10-01 00:00:00" "$ctl" stats threats
show "$ctl" stats security --at 2026-10-31 --days 31 --png /tmp/demo-threats.png
echo "the threat chart: $(file -b /tmp/demo-threats.png)"
show "$ctl" analysis top recipient-domains --status send --from 2026-10-01 --to 2026-10-07 --limit 5

step "Per-domain usage: a domain's daily limit set and read back from the store; counters written by a policy daemon listed and removed"
show "$ctl" domain-usage set example.com en_quota yes rt_quota 300 rt_flow 5000
show "$ctl" domain-usage show example.com
echo "In the store, where the policy daemons read it:"
for key in enable_daily_quota-1 daily_quota_limit-1 outbound_flow_limit-1; do
    printf '%s = %s\n' "$key" "$("$tool" backend-command --command get --key "virtual_domain/$key")"
done
show "$target/scripts/daemon/memcached.sh" start
# A policy daemon's writes, in memcached's own text protocol.
count() {
    exec 3<>/dev/tcp/127.0.0.1/11211
    printf 'set %s 0 86400 %d\r\n%s\r\n' "$1" "${#2}" "$2" >&3
    read -r reply <&3
    exec 3>&-
}
count "example.com[senderQuota]alice" 42
count "example.com[senderFlow]alice" 180224
count "example.com[senderQuota]bob" 7
show "$ctl" domain-usage counters example.com alice bob carol
show "$ctl" domain-usage counters example.com --delete both alice
show "$ctl" domain-usage counters example.com alice bob carol
show "$target/scripts/daemon/memcached.sh" stop

step "Forward and vacation: a user's mail forwarded with a kept copy and an automatic reply, the .forward as the delivery agent reads it"
id alice >/dev/null 2>&1 || useradd -M alice
show "$ctl" personal forward alice alice.private@example.net --keep-copy yes
show "$ctl" personal vacation alice --subject "Out of office" --body "Back on Monday."
show "$ctl" personal show alice
forward="/var/spool/mail/local/$(id -u alice)/.forward"
echo "$forward, $(stat -c '%U, mode %a' "$forward"):"
cat "$forward"
show "$ctl" personal off alice

step "IMAP: switched on in the settings, Dovecot started through the library with the package's own configuration, a user's login over loopback; then switched off"
id erin >/dev/null 2>&1 || useradd -M erin
echo 'erin:Imap-Demo-1' | chpasswd
# The suite makes a user's mail directory the first time it looks at the user.
"$ctl" personal show erin >/dev/null
show "$ctl" settings set --of imap imap_enabled yes max_userip_conn 10
"$ctl" settings show --of imap | grep -E '^(imap_enabled|imaps_enabled|pop3_enabled|max_userip_conn) '
show "$ctl" settings service --of imap start
show "$ctl" settings service --of imap status
dovecot_conf=/var/packages/Quillon-Server/target/etc/dovecot/dovecot.conf
show /var/packages/Quillon-Server/target/bin/doveconf -n -c "$dovecot_conf"
# One IMAP conversation, each line as it went: C from the client, S from the server.
imap_say() {
    printf 'C: %s\n' "$1"
    printf '%s\r\n' "$1" >&3
    local reply
    while read -r -t 10 reply <&3; do
        reply=${reply%$'\r'}
        printf 'S: %s\n' "${reply:0:110}"
        [[ $reply == "${1%% *} "* ]] && break
    done
}
exec 3<>/dev/tcp/127.0.0.1/143
read -r -t 10 greeting <&3
printf 'S: %s\n' "${greeting%$'\r'}"
imap_say "a LOGIN erin Imap-Demo-1"
imap_say "b SELECT INBOX"
imap_say "c LOGOUT"
exec 3>&-
echo "Someone who can write the store's files puts a directive into a number; the writer refuses it and Dovecot keeps its configuration:"
bad=$(printf '10\nauth_debug_passwords=yes')
printf '$ %s conf set max_userip_conn %q\n' "$ctl" "$bad"
"$ctl" conf set max_userip_conn "$bad"
if "$ctl" settings service --of imap reload; then echo "UNEXPECTED: the reload was accepted"; exit 1; fi
grep -E '^(mail_max_userip_connections|auth_debug)' "$dovecot_conf"
show "$ctl" settings set --of imap max_userip_conn 10
show "$ctl" settings set --of imap imap_enabled no
if "$ctl" settings service --of imap status; then echo "UNEXPECTED: Dovecot still runs"; exit 1; fi
if (exec 3<>/dev/tcp/127.0.0.1/143) 2>/dev/null; then echo "UNEXPECTED: 143 is open"; exit 1; fi
echo "Port 143 is closed."

step "Global lists: a network whitelisted for all mail, its CIDR form answered by Postfix's own cidr table"
show "$ctl" global add white network 192.0.2.77/255.255.255.0 --description "branch office"
show "$ctl" global add black sender offers@bulk-mailer.example
show "$ctl" global list white --cidr
"$ctl" global list white --type network --cidr | awk -F'\t' '$3 == "network" { print $4, "OK" }' \
    >/tmp/demo-whitelist.cidr
echo "192.0.2.200 -> $("$target/sbin/postmap" -q 192.0.2.200 cidr:/tmp/demo-whitelist.cidr)"
echo "192.0.3.1 -> $("$target/sbin/postmap" -q 192.0.3.1 cidr:/tmp/demo-whitelist.cidr || echo "(no match)")"

step "Migration: a task copies two users' mailboxes (two folders, a few hundred messages) from another IMAP server into this one"
# The other server: a Dovecot of its own on port 10143, with users alice and bob.
src=/tmp/demo-source
mkdir -p "$src/run" "$src/state" "$src/mail"
chown Quillon-Server: "$src/mail"
printf 'alice:Alice-Old-1\nbob:Bob-Old-2\n' >"$src/users"
cat >"$src/dovecot.conf" <<CONF
base_dir = $src/run
state_dir = $src/state
log_path = $src/dovecot.log
listen = 127.0.0.1
protocols = imap
ssl = no
disable_plaintext_auth = no
first_valid_uid = 1
mail_location = maildir:$src/mail/%u
passdb {
  driver = passwd-file
  args = scheme=PLAIN $src/users
}
userdb {
  driver = static
  args = uid=$(id -u Quillon-Server) gid=$(id -g Quillon-Server) home=$src/mail/%u
}
service imap-login {
  inet_listener imap {
    port = 10143
  }
  inet_listener imaps {
    port = 0
  }
}
CONF
# Messages written straight into the source's Maildirs: INBOX and Projects for each user.
fill() {  # user folder count
    local dir="$src/mail/$1" i
    [ "$2" = INBOX ] || dir="$dir/.$2"
    mkdir -p "$dir/cur" "$dir/new" "$dir/tmp"
    for ((i = 0; i < $3; i++)); do
        printf 'From: boss@old.example\r\nTo: %s@old.example\r\nSubject: %s %d\r\nMessage-ID: <%s.%s.%d@old.example>\r\n\r\nBody %d\r\n' \
            "$1" "$2" "$i" "$1" "$2" "$i" "$i" >"$dir/cur/$((1700000000 + i)).M$i.$1$2:2,S"
    done
}
fill alice INBOX 150; fill alice Projects 60; fill bob INBOX 90; fill bob Projects 30
chown -R Quillon-Server: "$src/mail"
/usr/sbin/dovecot -c "$src/dovecot.conf"
# Here: two accounts, and this server's IMAP on again.
for u in anna bert; do
    id "$u" >/dev/null 2>&1 || useradd -M "$u"
    "$ctl" personal show "$u" >/dev/null
done
"$ctl" settings set --of imap imap_enabled yes >/dev/null
show "$ctl" settings service --of imap start
show "$ctl" migration test --server 127.0.0.1 --port 10143
show "$ctl" migration test --server 127.0.0.1 --port 10144 || true
show "$ctl" migration add office-move --server 127.0.0.1 --port 10143 --max-users 2
printf 'alice,Alice-Old-1,anna\nbob,Bob-Old-2,bert\n' >/tmp/demo-users.csv
show "$ctl" migration users office-move --file /tmp/demo-users.csv
task_dir=/var/packages/Quillon-Server/target/var/migration_data/office-move
echo "The stored list keeps the passwords enciphered, readable by the package user alone:"
ls -l "$task_dir/user_list"
if grep -q 'Alice-Old-1' "$task_dir/user_list"; then echo "UNEXPECTED: a password in clear"; exit 1; fi
show "$ctl" migration test office-move
show "$ctl" migration start office-move
echo "While it runs, Dovecot knows one master user, usable from this machine only:"
sed 's/:{SHA512-CRYPT}[^:]*:*/ (hash) /' /var/packages/Quillon-Server/target/etc/dovecot/conf.d/master-users
"$ctl" migration status office-move
for _ in $(seq 1 120); do
    "$ctl" migration status office-move | grep -q running || break
    sleep 0.5
done
show "$ctl" migration status office-move
show "$ctl" migration log office-move --user-rows --oldest-first
echo "The master user is gone with the run: [$(cat /var/packages/Quillon-Server/target/etc/dovecot/conf.d/master-users 2>/dev/null)]"
# Messages on each side, folder by folder, as each Dovecot counts them.
doveadm=/var/packages/Quillon-Server/target/bin/doveadm
for pair in alice:anna bob:bert; do
    s=${pair%%:*} d=${pair##*:}
    for folder in INBOX Projects; do
        there=$("$doveadm" -c "$src/dovecot.conf" mailbox status -u "$s" messages "$folder" | sed "s/.*messages=//")
        here=$("$doveadm" -c "$dovecot_conf" mailbox status -u "$d" messages "$folder" | sed "s/.*messages=//")
        echo "$s $folder: $there there, $d $folder: $here here"
        [ "$there" = "$here" ] || { echo "UNEXPECTED: the counts differ"; exit 1; }
    done
done
/usr/sbin/dovecot -c "$src/dovecot.conf" stop
show "$ctl" settings set --of imap imap_enabled no

step "A cluster of three: two fresh machines join this server, take up its settings and files, and one leaves again"
harness=$(cd "$(dirname "${BASH_SOURCE[0]}")/../tests/harness" && pwd)
redis_cli=/var/packages/Quillon-Server/target/usr/bin/redis-cli
declare -A node_pid
# node_up N: a fresh machine (own mounts, own network) with address 10.77.0.N on the bridge.
node_up() {
    local n=$1 pid i
    unshare --mount --net --propagation private -- "$harness/network_node" "10.77.0.$n" &
    pid=$!
    node_pid[$n]=$pid
    for ((i = 0; i < 200; i++)); do
        [ "$(readlink /proc/$pid/ns/net)" != "$(readlink /proc/self/ns/net)" ] && break
        sleep 0.05
    done
    ip link add "qsvveth$n" type veth peer name eth0 netns "$pid"
    ip link set "qsvveth$n" master qsvbr0 up
    nsenter --net=/proc/$pid/ns/net -- ip link set lo up
    nsenter --net=/proc/$pid/ns/net -- ip addr add "10.77.0.$n/24" dev eth0
    nsenter --net=/proc/$pid/ns/net -- ip link set eth0 up
    for ((i = 0; i < 200; i++)); do
        [ -e "/proc/$pid/root/run/network_node.ready" ] && return 0
        sleep 0.05
    done
    echo "node $n did not come up"; return 1
}
# on N COMMAND...: COMMAND run on node N.
on() {
    local pid=${node_pid[$1]}; shift
    nsenter --mount=/proc/$pid/ns/mnt --net=/proc/$pid/ns/net --wd="$PWD" -- "$@"
}
replication() {  # the replication state of the key store at 10.77.0.N, asked from node N
    local n=$1
    printf 'node %s: ' "$n"
    if [ "$n" = 1 ]; then
        REDISCLI_AUTH=$pass "$redis_cli" -p 8500 info replication
    else
        REDISCLI_AUTH=$pass on "$n" "$redis_cli" -p 8500 info replication
    fi | tr -d '\r' | grep -E '^(role|master_host|master_link_status):' | paste -sd' '
}
pass=$("$tool" conf-value --file /var/packages/Quillon-Server/etc/backend.conf --member password)
echo "This machine gets 10.77.0.1 on a bridge that the new machines share; the cluster learns the address:"
ip link add qsvbr0 type bridge
ip addr add 10.77.0.1/24 dev qsvbr0
ip link set qsvbr0 up
show "$ctl" member readdress 10.77.0.1
node_up 2
node_up 3
echo "Node 2 joins with every role, node 3 as a mailer of weight 0: a ticket made here, used there."
show "$ctl" member add --address 10.77.0.2 --ticket /tmp/ticket-2
echo '$ (node 2)' "$ctl" member join --ticket /tmp/ticket-2
on 2 "$ctl" member join --ticket /tmp/ticket-2
# A membership change waits until every node has taken up the last one (its sync flags lowered).
settled() {
    local i
    for ((i = 0; i < 600; i++)); do
        [ -z "$(REDISCLI_AUTH=$pass "$redis_cli" -p 8500 --scan --pattern 'service_change/*')" ] &&
            return 0
        sleep 0.1
    done
    echo "the nodes did not take up the change within a minute" >&2
    return 1
}
settled
show "$ctl" member add --address 10.77.0.3 --ticket /tmp/ticket-3 --roles mailer --weight 0
echo '$ (node 3)' "$ctl" member join --ticket /tmp/ticket-3
on 3 "$ctl" member join --ticket /tmp/ticket-3
# This node's mirrors follow the joiner's writes through its watcher: a moment later.
for ((i = 0; i < 100; i++)); do
    [ "$("$ctl" conf get consul_peers | wc -w)" = 3 ] && break
    sleep 0.1
done
show "$ctl" member list
printf 'mailer_weight_list = %s\n' "$("$ctl" conf get mailer_weight_list)"
echo "One key store master (this node), two replicas that follow it:"
for n in 1 2 3; do replication "$n"; done
echo "A setting this server had before is on the new node:"
printf 'node 3: smtp_port = %s\n' "$(on 3 "$ctl" conf get smtp_port)"
echo "A setting written now, on node 2 (a replica), reaches the master and node 3's mirror file:"
echo "\$ (node 2) $ctl conf set smtp_banner 'ESMTP cluster ready'"
on 2 "$ctl" conf set smtp_banner "ESMTP cluster ready"
for ((i = 0; i < 100; i++)); do
    on 3 grep -q "cluster ready" "$conf/smtp_banner" 2>/dev/null && break
    sleep 0.1
done
printf 'node 3 mirror: '; on 3 cat "$conf/smtp_banner"
echo "An alias added here: the alias database is sent through the file buffer and read on node 3:"
show "$ctl" alias add example.com oncall alice dave
for ((i = 0; i < 100; i++)); do
    on 3 "$ctl" alias members example.com oncall 2>/dev/null | grep -q dave && break
    sleep 0.1
done
echo '$ (node 3)' "$ctl" alias members example.com oncall
on 3 "$ctl" alias members example.com oncall
echo "The services of each node took the changes up and lowered their sync flags:"
settled || true
printf 'pending service syncs: %s\n' "$(REDISCLI_AUTH=$pass "$redis_cli" -p 8500 --scan --pattern 'service_change/*' | wc -l)"
id3=$(on 3 "$tool" conf-value --file "$conf/local_id_file" --member id)
echo "Node 3 leaves; this node keeps the store's master role and node 2 stays its replica:"
show "$ctl" member del "$id3"
show "$ctl" member list
for n in 1 2; do replication "$n"; done
printf 'node_ip_list of node 3 in the store: %s\n' \
    "$(REDISCLI_AUTH=$pass "$redis_cli" -p 8500 exists "mailserver/cluster/node_ip_list-$id3")"
# The members' Dovecots served the mailbox sync alone (IMAP and POP3 are off by now).
/var/packages/Quillon-Server/target/scripts/daemon/dovecot.sh stop
for n in 2 3; do
    on "$n" /var/packages/Quillon-Server/target/scripts/daemon/dovecot.sh stop
    on "$n" /var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh stop
done
kill "${node_pid[2]}" "${node_pid[3]}"
ip link del qsvbr0

step "What the library logged"
grep -v qsvtest /run/qsv-sandbox/syslog | tail -n 8 || true
show "$ctl" backend stop
