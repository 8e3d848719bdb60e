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

step "What the library logged"
grep -v qsvtest /run/qsv-sandbox/syslog | tail -n 8 || true
show "$ctl" backend stop
