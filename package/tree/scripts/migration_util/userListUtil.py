#!/usr/bin/python3
"""Reads an uploaded list of users to migrate.

    userListUtil.py FILE             exit 0 when FILE is a usable list, else 1 with the reason
    userListUtil.py -n TASK FILE     writes TASK's user_list from FILE

FILE is CSV text in UTF-8, one user a line: source account, password, destination account (empty:
the same name as at the source). Blank lines and lines that begin with '#' are skipped; fields
with a comma or a quote are quoted as CSV quotes them. The user_list written holds the passwords
in clear, mode 0600: the library enciphers them at once.
"""
import csv
import io
import json
import os
import re
import sys
import tempfile

DATA_DIR = "/var/packages/Quillon-Server/target/var/migration_data"
MAX_USERS = 10000
MAX_BYTES = 4 << 20
BAD_NAME = re.compile(r"[\x00-\x1f\x7f,\[\]%]")


class Refused(Exception):
    pass


def parse(path):
    if not os.path.isfile(path):
        raise Refused("%s is not a file" % path)
    if os.path.getsize(path) > MAX_BYTES:
        raise Refused("%s is larger than %d bytes" % (path, MAX_BYTES))
    with open(path, "rb") as f:
        raw = f.read()
    try:
        text = raw.decode("utf-8-sig")
    except UnicodeDecodeError:
        raise Refused("%s is not UTF-8 text" % path)
    users, seen = [], set()
    for number, row in enumerate(csv.reader(io.StringIO(text)), 1):
        if not row or (len(row) == 1 and not row[0].strip()) or row[0].lstrip().startswith("#"):
            continue
        if len(row) not in (2, 3):
            raise Refused("line %d: expected source account, password, destination account"
                          % number)
        src, password = row[0].strip(), row[1]
        dest = row[2].strip() if len(row) == 3 and row[2].strip() else src
        for name in (src, dest):
            if not name or BAD_NAME.search(name):
                raise Refused("line %d: %r can't be an account name" % (number, name))
        if "\n" in password or "\r" in password or "\0" in password or len(password) > 128:
            raise Refused("line %d: the password has a line break or is over 128 characters"
                          % number)
        if (src, dest) in seen:
            raise Refused("line %d: %s -> %s is listed twice" % (number, src, dest))
        seen.add((src, dest))
        users.append({"src_acnt": src, "src_passwd": password, "dest_acnt": dest, "status": 0})
        if len(users) > MAX_USERS:
            raise Refused("more than %d users" % MAX_USERS)
    if not users:
        raise Refused("%s lists no user" % path)
    return users


def write_user_list(task, users):
    if task in ("", ".", "..") or any(c in task for c in '/"\\:'):
        raise Refused("the task name %r is not one a task can have" % task)
    task_dir = os.path.join(DATA_DIR, task)
    if os.path.islink(task_dir) or not os.path.isdir(task_dir):
        raise Refused("there is no task %r" % task)
    fd, tmp = tempfile.mkstemp(prefix=".user_list.", dir=task_dir)
    try:
        with os.fdopen(fd, "w", encoding="utf-8") as f:
            json.dump(users, f)
        os.rename(tmp, os.path.join(task_dir, "user_list"))
    except BaseException:
        os.unlink(tmp)
        raise


def main(argv):
    try:
        if len(argv) == 1:
            parse(argv[0])
        elif len(argv) == 3 and argv[0] == "-n":
            write_user_list(argv[1], parse(argv[2]))
        else:
            raise Refused("usage: userListUtil.py FILE | -n TASK FILE")
    except (Refused, OSError, csv.Error) as e:
        print("userListUtil.py: %s" % e, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
