#!/bin/bash
# The SMTP side of the suite: the mail transfer agent and its helpers. The library runs it by path
# with one action word after a setting changed:
#
#   PostfixCollection.sh start|stop|restart|reload|status
#
# It drives the machine's Postfix where one runs; where none runs (a node that is only being
# configured, or the test sandbox), reload and status say so and succeed, start and restart fail.

postfix=/usr/sbin/postfix

running() {
    [ -x "$postfix" ] && [ -f /etc/postfix/main.cf ] && "$postfix" status >/dev/null 2>&1
}

case $1 in
    start)
        running && exit 0
        [ -x "$postfix" ] || { echo "PostfixCollection.sh: postfix is not installed" >&2; exit 1; }
        "$postfix" start
        ;;
    stop)
        running || exit 0
        "$postfix" stop
        ;;
    restart)
        [ -x "$postfix" ] || { echo "PostfixCollection.sh: postfix is not installed" >&2; exit 1; }
        running && "$postfix" stop
        "$postfix" start
        ;;
    reload)
        if running; then
            "$postfix" reload
        else
            echo "PostfixCollection.sh: postfix is not running; the new settings apply at its start"
        fi
        ;;
    status)
        if running; then echo "postfix is running"; else echo "postfix is not running"; fi
        ;;
    *)
        echo "usage: PostfixCollection.sh start|stop|restart|reload|status" >&2
        exit 1
        ;;
esac
