#!/usr/bin/python3
"""Sends again, from this node, every file that the cluster spreads through its file buffer.

A node that joins a running cluster missed the file cycles that ran before it: the alias,
quota, attachment, access and domain databases and the users' personal files. The store keeps
the record of the last cycle of each such file under its key (the log of what was sent), so this
node, which holds every one of them, starts each cycle once more with its own copy; the new node's
watcher takes the files up like any other change.

Run as root, without arguments. Exits 0 when every file this node holds was sent again, 1 when
one was not; a record of a removed file, or of a file this node lacks, is skipped and logged.
"""
import json
import os
import re
import subprocess
import sys
import syslog

TARGET = "/var/packages/Quillon-Server/target"
KVTOOL = TARGET + "/usr/bin/kolt-quillon-server-go-utils"
CTL = TARGET + "/usr/bin/mailserverctl"
# The trees that hold the records of synced files: the databases, and the personal files.
TREES = ("mailserver/file", "personal")
# Where a synced file may live and where the program run after it may come from. The library
# checks both again before it sends anything; checking here keeps a forged record from even
# reaching it.
ALLOWED_FILES = ("/usr/kolt/etc/packages/Quillon-Server/", "/var/packages/Quillon-Server/target/etc/",
                 "/var/packages/Penholder/target/etc/", "/var/packages/Penholder/etc/",
                 "/var/spool/mail/")
ALLOWED_SCRIPTS = ("/var/packages/Quillon-Server/target/backend_hook/scripts/",
                   "/var/packages/Penholder/target/scripts/")
KEY_NAME = re.compile(r"^[A-Za-z0-9_.-]{1,200}$")
REQUIRED = ("senderID", "srcFilePath", "dstFilePath", "timestamp", "fileContentKey",
            "taskQueueKey", "randNum", "pathInfo")


def log(priority, text):
    syslog.syslog(priority, "reSyncfileFromLog: " + text)


def store(command, key):
    """The key store tool's answer for one key; None when the store could not be asked."""
    run = subprocess.run([KVTOOL, "backend-command", "--command", command, "--key", key],
                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.DEVNULL, check=False)
    if run.returncode != 0:
        return None
    return run.stdout.decode("utf-8", "replace")


def under(path, prefixes):
    return any(path.startswith(prefix) for prefix in prefixes)


def command_for(key, text):
    """The mailserverctl arguments that send the file of record `text` again under `key`, or a
    reason to skip it."""
    try:
        record = json.loads(text)
    except ValueError:
        return None, "not a file record"
    if not isinstance(record, dict) or any(member not in record for member in REQUIRED):
        return None, "not a file record"
    if record.get("isDelete") is True:
        return None, "the file was removed"
    if record.get("oriBackendKey", key) != key:
        return None, "the record names another key"
    path = record["dstFilePath"]
    if not isinstance(path, str) or path != record["srcFilePath"] or not path.startswith("/"):
        return None, "the record names no usable path"
    real = os.path.realpath(path)
    if not under(real, ALLOWED_FILES):
        return None, "the file lies outside the folders that are synced"
    if not os.path.isfile(real):
        return None, "this node has no such file"
    argv = [CTL, "file", "set", key, path]
    script = record.get("scriptPath") or ""
    if script:
        args = record.get("scriptArgs") or []
        if (not isinstance(script, str) or not under(os.path.realpath(script), ALLOWED_SCRIPTS)
                or not isinstance(args, list) or not all(isinstance(a, str) for a in args)):
            return None, "the record's program lies outside the hook folders"
        argv += [script] + args
    return argv, None


def main():
    if len(sys.argv) != 1:
        sys.stderr.write("usage: reSyncfileFromLog.py\n")
        return 1
    syslog.openlog("reSyncfileFromLog", 0, syslog.LOG_MAIL)
    failed = False
    for tree in TREES:
        children = store("list", tree)
        if children is None:
            log(syslog.LOG_ERR, "cannot list %s in the key store" % tree)
            failed = True
            continue
        # The tool names the children in full: the tree, a slash, the key the caller gave.
        for child in children.split():
            key = child[len(tree) + 1:] if child.startswith(tree + "/") else ""
            if not KEY_NAME.match(key):
                log(syslog.LOG_WARNING, "skipped a key with an unusable name in %s" % tree)
                continue
            text = store("get", child)
            if text is None:
                log(syslog.LOG_ERR, "cannot read %s/%s" % (tree, key))
                failed = True
                continue
            argv, reason = command_for(key, text)
            if argv is None:
                log(syslog.LOG_INFO, "skipped %s: %s" % (key, reason))
                continue
            run = subprocess.run(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL, check=False)
            if run.returncode != 0:
                log(syslog.LOG_ERR, "failed to send %s again under %s" % (argv[4], key))
                failed = True
            else:
                log(syslog.LOG_INFO, "sent %s again under %s" % (argv[4], key))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
