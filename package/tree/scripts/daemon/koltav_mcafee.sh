#!/bin/bash
# The commercial scanning engine has no package for this system: it is never installed here.
# Every word but stop and status fails and says so; stop succeeds, since nothing runs; status
# fails, since nothing answers.
#
#   koltav_mcafee.sh start|stop|restart|reload|status

case $1 in
    stop)
        exit 0
        ;;
    status)
        exit 1
        ;;
    start | restart | reload)
        echo "koltav_mcafee.sh: the koltav-mcafee engine is not installed on this node" >&2
        exit 1
        ;;
    *)
        echo "usage: $0 start|stop|restart|reload|status" >&2
        exit 1
        ;;
esac
