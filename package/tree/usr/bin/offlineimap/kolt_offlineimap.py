"""What a migration's offlineimap configuration calls: the passwords, deciphered when a login
needs them, and the folder rules of the task.

The configuration holds only enciphered passwords. kolt_migration_decrypt, run as the package
user, gives the plain text back through a pipe, never through a command line or a file.
"""
import subprocess

DECRYPT = "/var/packages/Quillon-Server/target/bin/kolt_migration_decrypt"

_plain = {}


def kolt_password(cipher):
    if cipher not in _plain:
        done = subprocess.run([DECRYPT], input=cipher.encode() + b"\n", stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, check=False, timeout=30)
        if done.returncode != 0:
            raise RuntimeError("a stored password could not be deciphered on this machine")
        _plain[cipher] = done.stdout.decode("utf-8").rstrip("\n")
    return _plain[cipher]


TRASH = ("trash", "deleted items", "deleted messages", "bin")
JUNK = ("junk", "spam", "junk e-mail", "junk email", "bulk mail")


def kolt_folder_wanted(folder, rules):
    leaf = folder.replace("/", ".").split(".")[-1].lower()
    if rules.get("ignore_trash") and leaf in TRASH:
        return False
    if rules.get("ignore_junk") and leaf in JUNK:
        return False
    if rules.get("by_name"):
        # An exception takes a folder out of the keywords' reach, whichever way they work.
        lowered = folder.lower()
        hit = any(word.lower() in lowered for word in rules.get("keywords", [])) and not any(
            word.lower() in lowered for word in rules.get("exceptions", []))
        return not hit if rules.get("is_blacklist") else hit
    return True
