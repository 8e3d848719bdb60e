// libmailserver.so is the static core linked whole; this file only gives the target a source.
